// Code that a virtual machine compiles, throws away and compiles anew: for one class of objects and then for two; by
// four threads at once; and by class loaders that are collected with their classes.
import java.lang.ref.WeakReference;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.file.Paths;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;

public class Work {
  interface Shape {
    double area();
  }

  static final class Unit implements Shape {
    public double area() { return 1; }
  }

  static final class Large implements Shape {
    public double area() { return 2.5; }
  }

  static double sum(Shape[] shapes) {
    double total = 0;
    for (Shape shape : shapes) total += shape.area();
    return total;
  }

  // The first half of the calls is compiled for one class. The second half finds another one.
  static double sumTwice() {
    Shape[] shapes = new Shape[1000];
    double total = 0;
    Arrays.fill(shapes, new Unit());
    for (int round = 0; round < 3000; ++round) total += sum(shapes);
    for (int index = 0; index < shapes.length; index += 2) shapes[index] = new Large();
    for (int round = 0; round < 3000; ++round) total += sum(shapes);
    return total;
  }

  static long sumInThreads() throws Exception {
    ExecutorService pool = Executors.newFixedThreadPool(4);
    List<Future<Long>> parts = new ArrayList<>();
    for (int number = 2; number < 10; ++number) {
      final int divisor = number;
      parts.add(pool.submit(() -> {
        long part = 0;
        for (int index = 0; index < 300000; ++index) part += index % divisor;
        return part;
      }));
    }
    long total = 0;
    for (Future<Long> part : parts) total += part.get();
    pool.shutdown();
    return total;
  }

  static boolean unloadsClasses() throws Exception {
    URL[] here = {Paths.get(System.getProperty("java.class.path")).toUri().toURL()};
    List<WeakReference<Class<?>>> loaded = new ArrayList<>();
    for (int round = 0; round < 5; ++round) {
      try (URLClassLoader loader = new URLClassLoader(here, null)) {
        Class<?> copy = Class.forName("Work", true, loader);
        copy.getMethod("main", String[].class).invoke(null, (Object) new String[] {"quiet"});
        loaded.add(new WeakReference<>(copy));
      }
    }
    for (int round = 0; round < 10; ++round) System.gc();
    return loaded.stream().anyMatch(reference -> reference.get() == null);
  }

  public static void main(String[] arguments) throws Exception {
    double total = sumTwice();
    if (arguments.length != 0) return;
    System.out.println(total + " " + sumInThreads());
    System.out.println(unloadsClasses() ? "classes were unloaded" : "no class was unloaded");
  }
}
