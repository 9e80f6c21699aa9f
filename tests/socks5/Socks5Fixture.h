#pragma once

#include <dirent.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <thread>

#include "fakes/FakeConnectionListener.h"
#include "fakes/FakeDatagramHandler.h"
#include "fakes/FakeProxyConnection.h"
#include "fakes/FakeResolver.h"
#include "proxy/address/CAddressManager.h"
#include "proxy/socks5/CConnectionProtocol_SOCKS5.h"

namespace ZRT {
namespace Testing {

inline std::string Bytes(std::initializer_list<int> values)
{
    std::string bytes;
    for (int value : values)
        bytes.push_back(static_cast<char>(value));
    return bytes;
}

// Polls a condition for up to five seconds; waits only as long as it takes.
inline bool Eventually(const std::function<bool()>& condition)
{
    for (int i = 0; i < 5000; ++i) {
        if (condition())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return condition();
}

// A reply with REP code, 0.0.0.0 and the fixture client's own port 50123.
inline std::string CommandReply(int code)
{
    return Bytes({5, code, 0, 1, 0, 0, 0, 0, 0xC3, 0xCB});
}

inline int CountEntries(const char* directory)
{
    int count = 0;
    if (DIR* dir = opendir(directory)) {
        while (readdir(dir))
            ++count;
        closedir(dir);
    }
    return count;
}

inline int CountThreads() { return CountEntries("/proc/self/task"); }

// The thread count to come back to. A sanitizer runtime starts a thread of its own with the
// process's first thread, so one is made and joined before counting.
inline int ThreadBaseline()
{
    std::thread([] {}).join();
    return CountThreads();
}

// A joined thread can linger in /proc for a moment after the join returned.
inline bool ThreadsBackTo(int baseline)
{
    // At most: under emulation the baseline may include a helper thread of the emulator.
    return Eventually([&] { return CountThreads() <= baseline; });
}
inline int CountDescriptors() { return CountEntries("/proc/self/fd"); }

// One handler on a fake connection (client port 50123 = C3 CB), with the address manager
// resolving through a scripted resolver.
class Socks5Fixture : public ::testing::Test {
protected:
    static constexpr unsigned int CLIENT_PORT = 50123;

    void SetUp() override
    {
        m_resolver.SetResolveNumeric(false);
        Proxy::CAddressManager::GetInstance()->Init(&m_resolver);
    }

    void TearDown() override
    {
        Stop();
        Proxy::CAddressManager::GetInstance()->Terminate();
    }

    void Create()
    {
        m_handler.reset(new Proxy::CConnectionProtocol_SOCKS5(m_connection));
        m_connection.SetProtocol(m_handler.get());
    }

    void Start()
    {
        Create();
        m_handler->Init();
    }

    void Send(const std::string& bytes) { m_handler->HandleRequest(bytes.data(), static_cast<int>(bytes.size())); }

    // Greeting and method selection; the handler then awaits a request.
    void Negotiate()
    {
        Start();
        Send(Bytes({5, 1, 0}));
        ASSERT_EQ(Bytes({5, 0}), m_connection.WaitForClientBytes(2));
    }

    // What the client receives after the greeting reply.
    std::string Replies() { return m_connection.GetToClient().substr(2); }
    std::string WaitForReplies(size_t count) { return m_connection.WaitForClientBytes(2 + count).substr(2); }

    bool WaitForState(int state)
    {
        return Eventually([&] { return m_handler->GetState() == state; });
    }

    // The client goes away as the connection would do it; the handler is then destroyed.
    void Stop()
    {
        if (!m_handler)
            return;
        m_connection.DisconnectClient();
        m_handler.reset();
    }

    FakeResolver m_resolver;
    FakeProxyConnection m_connection{CLIENT_PORT};
    std::unique_ptr<Proxy::CConnectionProtocol_SOCKS5> m_handler;
};

} // namespace Testing
} // namespace ZRT
