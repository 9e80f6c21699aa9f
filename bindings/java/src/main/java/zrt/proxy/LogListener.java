package zrt.proxy;

/**
 * Receives the proxy's log lines: start, stop, one line per client (the access log's fields) and
 * each error while running. Called in order on one thread of the proxy, a daemon thread attached
 * to the JVM for as long as the proxy runs. It must not block: lines queue up meanwhile, and
 * beyond a bound they are dropped and counted ({@link ZrtProxy.Stats#logLinesDropped}). An
 * exception it throws is cleared and the line is lost.
 */
@FunctionalInterface
public interface LogListener {
    int ERROR = 1;
    int WARNING = 2;
    int INFO = 3;
    int DEBUG = 4;

    /**
     * @param level {@link #ERROR}, {@link #WARNING}, {@link #INFO} or {@link #DEBUG}
     * @param line one line of text, without a line end
     */
    void onLog(int level, String line);
}
