package org.zoltpano;

import java.lang.ref.PhantomReference;
import java.lang.ref.ReferenceQueue;
import java.util.Collections;
import java.util.IdentityHashMap;
import java.util.Set;

/**
 * Runs an action once an object has become unreachable, on one daemon thread: what
 * {@code java.lang.ref.Cleaner} does, which Android has only from API level 33.
 */
final class EngineCleaner {
  /** An action registered for an object; {@link #clean()} runs it at most once, from any thread. */
  static final class Cleanable extends PhantomReference<Object> {
    private Runnable action;

    private Cleanable(Object owner, Runnable action) {
      super(owner, QUEUE);
      this.action = action;
    }

    /** Runs the action unless it ran or was dropped already. */
    void clean() {
      Runnable run = take();
      if (run != null) {
        run.run();
      }
    }

    /** Drops the action without running it; whether it was still pending. */
    boolean drop() {
      return take() != null;
    }

    private Runnable take() {
      Runnable run;
      synchronized (this) {
        run = action;
        action = null;
      }
      PENDING.remove(this);
      clear();
      return run;
    }
  }

  private static final ReferenceQueue<Object> QUEUE = new ReferenceQueue<>();
  // Keeps each Cleanable reachable until it has run: a collected reference is never enqueued.
  private static final Set<Cleanable> PENDING =
      Collections.synchronizedSet(Collections.newSetFromMap(new IdentityHashMap<>()));

  static {
    Thread thread = new Thread(EngineCleaner::drain, "zoltpano-cleaner");
    thread.setDaemon(true);
    thread.start();
  }

  private EngineCleaner() {}

  /** Runs {@code action} once {@code owner} is unreachable; the action must not hold it. */
  static Cleanable register(Object owner, Runnable action) {
    Cleanable cleanable = new Cleanable(owner, action);
    PENDING.add(cleanable);
    return cleanable;
  }

  private static void drain() {
    while (true) {
      try {
        ((Cleanable) QUEUE.remove()).clean();
      } catch (InterruptedException e) {
        // A daemon thread: nothing asks it to stop.
      } catch (RuntimeException | Error e) {
        // One action failing leaves the others to run.
      }
    }
  }
}
