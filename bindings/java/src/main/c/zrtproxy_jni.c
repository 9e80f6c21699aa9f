/* The native side of zrt.proxy.ZrtProxy: a handle is a binding_t*, which carries the library's
 * handle and global references to the Java listeners. The library's threads are attached to the
 * JVM by the thread hooks for their whole life, so callbacks find a JNIEnv ready. */
#include <jni.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "zrt_proxy_ZrtProxy.h"
#include "zrtproxy/zrtproxy.h"

/* Android's jni.h types the out parameter of AttachCurrentThread as JNIEnv**, the JDK's as void**. */
#ifdef __ANDROID__
typedef JNIEnv** env_out_t;
#else
typedef void** env_out_t;
#endif

typedef struct binding {
    zrt_proxy_t* proxy;
    jobject log_listener; /* global references, or NULL */
    jobject protector;
    atomic_int listener_threw; /* the first exception of a listener is printed, later ones only cleared */
} binding_t;

static JavaVM* java_vm;
static jmethodID on_log_method;
static jmethodID protect_method;

/* The binding whose listener this thread runs now: Java refuses control calls from there. */
static _Thread_local const binding_t* dispatching;
/* Set on threads the thread hook attached, which it detaches again. */
static _Thread_local int attached_by_hook;

static JavaVMAttachArgs attach_args(void)
{
    JavaVMAttachArgs args;
    args.version = JNI_VERSION_1_6;
    args.name = (char*)"zrt-proxy";
    args.group = NULL;
    return args;
}

JNIEXPORT jint JNICALL JNI_OnLoad(JavaVM* vm, void* reserved)
{
    (void)reserved;
    JNIEnv* env = NULL;
    if ((*vm)->GetEnv(vm, (void**)&env, JNI_VERSION_1_6) != JNI_OK)
        return JNI_ERR;
    jclass log_class = (*env)->FindClass(env, "zrt/proxy/LogListener");
    if (!log_class)
        return JNI_ERR;
    on_log_method = (*env)->GetMethodID(env, log_class, "onLog", "(ILjava/lang/String;)V");
    jclass protector_class = (*env)->FindClass(env, "zrt/proxy/SocketProtector");
    if (!on_log_method || !protector_class)
        return JNI_ERR;
    protect_method = (*env)->GetMethodID(env, protector_class, "protect", "(I)Z");
    if (!protect_method)
        return JNI_ERR;
    java_vm = vm;
    return JNI_VERSION_1_6;
}

static void thread_started(void* context)
{
    (void)context;
    JNIEnv* env = NULL;
    if ((*java_vm)->GetEnv(java_vm, (void**)&env, JNI_VERSION_1_6) != JNI_EDETACHED)
        return;
    /* Daemon threads: a proxy left running does not keep the JVM from exiting. */
    JavaVMAttachArgs args = attach_args();
    if ((*java_vm)->AttachCurrentThreadAsDaemon(java_vm, (env_out_t)&env, &args) == JNI_OK)
        attached_by_hook = 1;
}

static void thread_stopping(void* context)
{
    (void)context;
    if (attached_by_hook) {
        attached_by_hook = 0;
        (*java_vm)->DetachCurrentThread(java_vm);
    }
}

/* The current thread's JNIEnv. A thread the hooks did not attach (none is expected) is attached
 * for this one call; *attached tells the caller to detach it. */
static JNIEnv* callback_env(int* attached)
{
    JNIEnv* env = NULL;
    *attached = 0;
    jint got = (*java_vm)->GetEnv(java_vm, (void**)&env, JNI_VERSION_1_6);
    if (got == JNI_OK)
        return env;
    JavaVMAttachArgs args = attach_args();
    if (got == JNI_EDETACHED && (*java_vm)->AttachCurrentThreadAsDaemon(java_vm, (env_out_t)&env, &args) == JNI_OK) {
        *attached = 1;
        return env;
    }
    return NULL;
}

/* Nothing may stay pending once native code goes on. */
static int clear_exception(JNIEnv* env, binding_t* binding)
{
    if (!(*env)->ExceptionCheck(env))
        return 0;
    if (atomic_exchange(&binding->listener_threw, 1) == 0)
        (*env)->ExceptionDescribe(env); /* prints and clears */
    (*env)->ExceptionClear(env);
    return 1;
}

/* UTF-8 to UTF-16, one unit at most per byte; a malformed sequence gives U+FFFD per byte. JNI's
 * NewStringUTF wants modified UTF-8 instead, which writes characters beyond U+FFFF differently. */
static size_t utf8_to_utf16(const unsigned char* in, size_t length, jchar* out)
{
    size_t units = 0;
    size_t i = 0;
    while (i < length) {
        const unsigned lead = in[i];
        unsigned need = 0;
        uint32_t code = 0;
        unsigned low = 0x80;
        unsigned high = 0xBF;
        if (lead < 0x80) {
            out[units++] = (jchar)lead;
            ++i;
            continue;
        }
        if (lead >= 0xC2 && lead <= 0xDF) {
            need = 1;
            code = lead & 0x1F;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            need = 2;
            code = lead & 0x0F;
            if (lead == 0xE0)
                low = 0xA0; /* overlong */
            else if (lead == 0xED)
                high = 0x9F; /* surrogates */
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            need = 3;
            code = lead & 0x07;
            if (lead == 0xF0)
                low = 0x90; /* overlong */
            else if (lead == 0xF4)
                high = 0x8F; /* beyond U+10FFFF */
        }
        unsigned k = 1;
        if (need > 0 && i + need < length) {
            for (; k <= need; ++k) {
                const unsigned next = in[i + k];
                if (next < (k == 1 ? low : 0x80) || next > (k == 1 ? high : 0xBF))
                    break;
                code = (code << 6) | (next & 0x3F);
            }
        }
        if (need == 0 || k <= need) {
            out[units++] = 0xFFFD;
            ++i;
            continue;
        }
        if (code >= 0x10000) {
            code -= 0x10000;
            out[units++] = (jchar)(0xD800 + (code >> 10));
            out[units++] = (jchar)(0xDC00 + (code & 0x3FF));
        } else {
            out[units++] = (jchar)code;
        }
        i += need + 1;
    }
    return units;
}

static jstring new_string(JNIEnv* env, const char* text)
{
    const size_t length = text ? strlen(text) : 0;
    jchar stack[512] = {0}; /* initialized for the compiler, which cannot see count <= length */
    jchar* units = length <= sizeof(stack) / sizeof(stack[0]) ? stack : malloc(length * sizeof(jchar));
    if (!units)
        return NULL;
    const size_t count = utf8_to_utf16((const unsigned char*)text, length, units);
    jstring string = (*env)->NewString(env, units, (jsize)count);
    if (units != stack)
        free(units);
    return string;
}

static void log_line(void* context, int level, const char* line)
{
    binding_t* binding = context;
    int attached = 0;
    JNIEnv* env = callback_env(&attached);
    if (!env)
        return;
    /* The thread never returns to Java, so its local references are freed here. */
    jstring text = new_string(env, line);
    if (text) {
        const binding_t* outer = dispatching;
        dispatching = binding;
        (*env)->CallVoidMethod(env, binding->log_listener, on_log_method, (jint)level, text);
        dispatching = outer;
    }
    clear_exception(env, binding);
    if (text)
        (*env)->DeleteLocalRef(env, text);
    if (attached)
        (*java_vm)->DetachCurrentThread(java_vm);
}

static int protect_socket(void* context, int fd)
{
    binding_t* binding = context;
    int attached = 0;
    JNIEnv* env = callback_env(&attached);
    if (!env)
        return -1;
    const binding_t* outer = dispatching;
    dispatching = binding;
    jboolean allowed = (*env)->CallBooleanMethod(env, binding->protector, protect_method, (jint)fd);
    dispatching = outer;
    /* A protector that failed has not protected the socket: refuse it. */
    if (clear_exception(env, binding))
        allowed = JNI_FALSE;
    if (attached)
        (*java_vm)->DetachCurrentThread(java_vm);
    return allowed ? 0 : -1;
}

static binding_t* binding_of(jlong handle)
{
    return (binding_t*)(intptr_t)handle;
}

/* Swaps a listener's global reference; the proxy is stopped, so no callback holds the old one. */
static void replace_reference(JNIEnv* env, jobject* slot, jobject value)
{
    jobject old = *slot;
    *slot = value ? (*env)->NewGlobalRef(env, value) : NULL;
    if (old)
        (*env)->DeleteGlobalRef(env, old);
}

/* A NUL-terminated copy of a Java byte array, or NULL (out of memory: an exception is pending). */
static char* c_string(JNIEnv* env, jbyteArray bytes)
{
    const jsize length = (*env)->GetArrayLength(env, bytes);
    char* text = malloc((size_t)length + 1);
    if (!text) {
        jclass oom = (*env)->FindClass(env, "java/lang/OutOfMemoryError");
        if (oom)
            (*env)->ThrowNew(env, oom, "zrtproxy_jni");
        return NULL;
    }
    (*env)->GetByteArrayRegion(env, bytes, 0, length, (jbyte*)text);
    text[length] = '\0';
    return text;
}

JNIEXPORT jlong JNICALL Java_zrt_proxy_ZrtProxy_nativeCreate(JNIEnv* env, jclass type)
{
    (void)env, (void)type;
    binding_t* binding = calloc(1, sizeof(*binding));
    if (!binding)
        return 0;
    binding->proxy = zrt_proxy_create();
    if (!binding->proxy) {
        free(binding);
        return 0;
    }
    atomic_init(&binding->listener_threw, 0);
    zrt_proxy_set_thread_hooks(binding->proxy, thread_started, thread_stopping, binding);
    return (jlong)(intptr_t)binding;
}

JNIEXPORT void JNICALL Java_zrt_proxy_ZrtProxy_nativeDestroy(JNIEnv* env, jclass type, jlong handle)
{
    (void)type;
    binding_t* binding = binding_of(handle);
    zrt_proxy_destroy(binding->proxy);
    replace_reference(env, &binding->log_listener, NULL);
    replace_reference(env, &binding->protector, NULL);
    free(binding);
}

JNIEXPORT jint JNICALL Java_zrt_proxy_ZrtProxy_nativeSetOption(JNIEnv* env, jclass type, jlong handle, jbyteArray name,
                                                              jbyteArray value)
{
    (void)type;
    char* name_text = c_string(env, name);
    char* value_text = value && name_text ? c_string(env, value) : NULL;
    int result = ZRT_E_INVALID;
    if (name_text && (value_text || !value))
        result = zrt_proxy_set_option(binding_of(handle)->proxy, name_text, value_text);
    free(name_text);
    free(value_text);
    return result;
}

JNIEXPORT jint JNICALL Java_zrt_proxy_ZrtProxy_nativeStart(JNIEnv* env, jclass type, jlong handle)
{
    (void)env, (void)type;
    return zrt_proxy_start(binding_of(handle)->proxy);
}

JNIEXPORT void JNICALL Java_zrt_proxy_ZrtProxy_nativeStop(JNIEnv* env, jclass type, jlong handle)
{
    (void)env, (void)type;
    zrt_proxy_stop(binding_of(handle)->proxy);
}

JNIEXPORT jint JNICALL Java_zrt_proxy_ZrtProxy_nativeNetworkChanged(JNIEnv* env, jclass type, jlong handle)
{
    (void)env, (void)type;
    return zrt_proxy_network_changed(binding_of(handle)->proxy);
}

JNIEXPORT jint JNICALL Java_zrt_proxy_ZrtProxy_nativePort(JNIEnv* env, jclass type, jlong handle)
{
    (void)env, (void)type;
    return zrt_proxy_port(binding_of(handle)->proxy);
}

JNIEXPORT jstring JNICALL Java_zrt_proxy_ZrtProxy_nativeLastError(JNIEnv* env, jclass type, jlong handle)
{
    (void)type;
    return new_string(env, zrt_proxy_last_error(binding_of(handle)->proxy));
}

JNIEXPORT jint JNICALL Java_zrt_proxy_ZrtProxy_nativeStats(JNIEnv* env, jclass type, jlong handle, jlongArray values)
{
    (void)type;
    zrt_proxy_stats_t stats;
    memset(&stats, 0, sizeof(stats));
    stats.size = sizeof(stats);
    const int result = zrt_proxy_get_stats(binding_of(handle)->proxy, &stats);
    if (result != ZRT_OK)
        return result;
    /* In the order of ZrtProxy.Stats's constructor. */
    const jlong fields[] = {
        (jlong)stats.connections_total,
        (jlong)stats.connections_active,
        (jlong)stats.bytes_client_to_host,
        (jlong)stats.bytes_host_to_client,
        (jlong)stats.socks5_total,
        (jlong)stats.http_total,
        (jlong)stats.refused_bad_request,
        (jlong)stats.refused_no_destination,
        (jlong)stats.refused_unreachable,
        (jlong)stats.udp_datagrams_client_to_host,
        (jlong)stats.udp_datagrams_host_to_client,
        (jlong)stats.refused_not_allowed,
        (jlong)stats.refused_auth_failed,
        (jlong)stats.refused_over_limit,
        (jlong)stats.timed_out,
        (jlong)stats.refused_denied,
        (jlong)stats.refused_source_limit,
        (jlong)stats.log_lines_dropped,
        (jlong)stats.udp_datagrams_dropped,
        (jlong)stats.http_requests,
        (jlong)stats.http_origin_reuses,
    };
    const jsize count = (jsize)(sizeof(fields) / sizeof(fields[0]));
    if ((*env)->GetArrayLength(env, values) != count)
        return ZRT_E_INVALID;
    (*env)->SetLongArrayRegion(env, values, 0, count, fields);
    return ZRT_OK;
}

JNIEXPORT void JNICALL Java_zrt_proxy_ZrtProxy_nativeSetLogListener(JNIEnv* env, jclass type, jlong handle,
                                                                   jobject listener)
{
    (void)type;
    binding_t* binding = binding_of(handle);
    replace_reference(env, &binding->log_listener, listener);
    zrt_proxy_set_log_callback(binding->proxy, binding->log_listener ? log_line : NULL, binding);
}

JNIEXPORT void JNICALL Java_zrt_proxy_ZrtProxy_nativeSetSocketProtector(JNIEnv* env, jclass type, jlong handle,
                                                                       jobject protector)
{
    (void)type;
    binding_t* binding = binding_of(handle);
    replace_reference(env, &binding->protector, protector);
    zrt_proxy_set_socket_hook(binding->proxy, binding->protector ? protect_socket : NULL, binding);
}

JNIEXPORT jlong JNICALL Java_zrt_proxy_ZrtProxy_nativeListenerHandle(JNIEnv* env, jclass type)
{
    (void)env, (void)type;
    return (jlong)(intptr_t)dispatching;
}
