// Loop [ROUNDS]: a loop that the virtual machine compiles. Without an argument it does next to nothing.
public class Loop {
  static int mix(int rounds) {
    int sum = 1;
    for (int index = 0; index < rounds; ++index) sum = (sum * 31 + index) % 1000003;
    return sum;
  }

  public static void main(String[] arguments) {
    if (arguments.length == 0) {
      System.out.println(1);
      return;
    }
    for (int again = 0; again < 3000; ++again) mix(20);
    for (int again = 0; again < 10; ++again) mix(20000);
    System.out.println(mix(Integer.parseInt(arguments[0])));
  }
}
