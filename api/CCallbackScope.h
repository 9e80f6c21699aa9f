#pragma once

#include <string>

namespace ZRT {
namespace Api {

// Marks the calling thread as inside a callback of one proxy for as long as it lives. A call of
// that proxy that would wait for its own threads (stop, start, reload, ...) asks IsInside first
// and refuses at once instead of waiting for itself. Callbacks of several proxies may nest; the
// innermost MAX_DEPTH are known.
//
// The refusal's reason is kept per thread (SetError), so that zrt_proxy_last_error called from
// the same callback reads it without racing the controlling thread's own text.
//
// Threads: each thread has its own marks; every operation is the calling thread's.
class CCallbackScope {
public:
    static constexpr int MAX_DEPTH = 8;

    explicit CCallbackScope(const void* owner);
    ~CCallbackScope();
    CCallbackScope(const CCallbackScope&) = delete;
    CCallbackScope& operator=(const CCallbackScope&) = delete;

    // Whether this thread runs a callback of owner now.
    static bool IsInside(const void* owner);
    // The reason of the last refusal on this thread inside a callback of owner ("" for none).
    static void SetError(const void* owner, const std::string& reason);
    static const std::string& GetError(const void* owner);
};

} // namespace Api
} // namespace ZRT
