package org.zoltpano;

import java.util.ArrayList;
import java.util.List;
import java.util.logging.Handler;
import java.util.logging.Level;
import java.util.logging.LogRecord;

/** Collects what the binding logs (java.util.logging, "org.zoltpano") while it is started. */
final class LogRecorder extends Handler {
  private final List<String> lines = new ArrayList<>();

  static LogRecorder start() {
    LogRecorder recorder = new LogRecorder();
    PanoramaEngine.LOG.addHandler(recorder);
    return recorder;
  }

  void stop() {
    PanoramaEngine.LOG.removeHandler(this);
  }

  synchronized List<String> lines() {
    return new ArrayList<>(lines);
  }

  @Override
  public synchronized void publish(LogRecord record) {
    if (record.getLevel().intValue() >= Level.WARNING.intValue()) {
      lines.add(record.getMessage());
    }
  }

  @Override
  public void flush() {}

  @Override
  public void close() {}
}
