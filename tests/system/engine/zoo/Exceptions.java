// Null checks, array bounds, divisions and deep recursion are faults or stubs of the virtual machine's own.
public class Exceptions {
  static class Node { Node next; int value; }
  static int nulls, bounds, zeros, overflows;

  static int valueOf(Node node) { return node.next.value; }
  static int divide(int by) { return 100 / by; }
  static int descend(int depth) { return descend(depth + 1) + 1; }

  public static void main(String[] arguments) throws Exception {
    int rounds = arguments.length > 0 ? Integer.parseInt(arguments[0]) : 1000;
    int[] numbers = new int[10];
    Node full = new Node();
    full.next = full;
    full.value = 3;
    long sum = 0;
    for (int round = 0; round < rounds; ++round) {
      try { sum += valueOf(round % 3 == 0 ? null : full); } catch (NullPointerException e) { ++nulls; }
      try { sum += numbers[round % 13]; } catch (ArrayIndexOutOfBoundsException e) { ++bounds; }
      try { sum += divide(round % 5); } catch (ArithmeticException e) { ++zeros; }
    }
    try { descend(0); } catch (StackOverflowError e) { ++overflows; }
    Thread[] threads = new Thread[4];
    java.util.concurrent.atomic.AtomicLong total = new java.util.concurrent.atomic.AtomicLong();
    for (int index = 0; index < threads.length; ++index) {
      final int seed = index;
      threads[index] = new Thread(() -> {
        java.util.HashMap<String, Integer> map = new java.util.HashMap<>();
        for (int item = 0; item < rounds; ++item) map.merge("key" + item % 97, seed + item, Integer::sum);
        for (int value : map.values()) total.addAndGet(value);
      });
      threads[index].start();
    }
    for (Thread thread : threads) thread.join();
    System.gc();
    System.out.println(sum + " " + nulls + " " + bounds + " " + zeros + " " + overflows + " " + total);
  }
}
