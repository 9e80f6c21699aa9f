#pragma once

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace ZRT {
namespace Host {

// The set of callback sinks of one service object, with the promise that no call reaches a sink
// after Remove() returned. Remove waits for a call in progress on another thread; a sink that
// removes itself from inside its own callback is not waited for (that would wait for itself).
// No lock is held while a sink is called. Every operation comes from any thread; a sink is
// called on the thread that calls Call or CallAll.
template <class Sink>
class CSinkRegistry {
public:
    // False if the sink was already registered.
    bool Add(Sink* sink)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (Contains(sink))
            return false;
        m_sinks.push_back(sink);
        return true;
    }

    // False if it was not registered.
    bool Remove(Sink* sink)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        auto found = std::find(m_sinks.begin(), m_sinks.end(), sink);
        if (found == m_sinks.end())
            return false;
        m_sinks.erase(found);
        const std::thread::id self = std::this_thread::get_id();
        m_callEnded.wait(lock, [&] {
            return std::none_of(m_calls.begin(), m_calls.end(), [&](const SCall& call) {
                return call.sink == sink && call.thread != self;
            });
        });
        return true;
    }

    std::vector<Sink*> Snapshot() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_sinks;
    }

    bool IsEmpty() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_sinks.empty();
    }

    // Calls function(sink) if the sink is still registered; true if it was called.
    template <class Function>
    bool Call(Sink* sink, Function&& function)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (!Contains(sink))
                return false;
            m_calls.push_back(SCall{sink, std::this_thread::get_id()});
        }
        struct SEnd {
            CSinkRegistry& registry;
            Sink* sink;
            ~SEnd() { registry.EndCall(sink); }
        } end{*this, sink};
        function(sink);
        return true;
    }

    // Calls function on every registered sink in turn.
    template <class Function>
    void CallAll(Function&& function)
    {
        for (Sink* sink : Snapshot())
            Call(sink, function);
    }

private:
    struct SCall {
        Sink* sink;
        std::thread::id thread;
    };

    bool Contains(Sink* sink) const { return std::find(m_sinks.begin(), m_sinks.end(), sink) != m_sinks.end(); }

    void EndCall(Sink* sink)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const std::thread::id self = std::this_thread::get_id();
        auto found = std::find_if(m_calls.begin(), m_calls.end(),
                                  [&](const SCall& call) { return call.sink == sink && call.thread == self; });
        if (found != m_calls.end())
            m_calls.erase(found);
        m_callEnded.notify_all();
    }

    // Guards m_sinks and m_calls (who is being called now, so Remove can wait for it to end).
    mutable std::mutex m_mutex;
    std::condition_variable m_callEnded;
    std::vector<Sink*> m_sinks;
    std::vector<SCall> m_calls;
};

} // namespace Host
} // namespace ZRT
