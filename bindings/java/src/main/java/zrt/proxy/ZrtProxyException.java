package zrt.proxy;

/** A call the library refused: {@link #code()} is the C interface's result, the message says why. */
public class ZrtProxyException extends RuntimeException {
    private static final long serialVersionUID = 1L;

    /** A null handle or argument. */
    public static final int INVALID = -1;
    /** No setting of that name. */
    public static final int UNKNOWN_OPTION = -2;
    /** The value does not suit the setting. */
    public static final int BAD_VALUE = -3;
    /** Not while the proxy runs: a second start, or a setting or listener that needs a stop. */
    public static final int RUNNING = -4;
    /** The proxy could not start (address in use, no threads, ...). */
    public static final int START = -5;
    /** Only while the proxy runs. */
    public static final int NOT_RUNNING = -6;

    private final int code;

    public ZrtProxyException(int code, String message) {
        super(message);
        this.code = code;
    }

    /** The C interface's result code, one of the constants of this class. */
    public int code() {
        return code;
    }
}
