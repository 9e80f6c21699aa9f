#pragma once

#include <sys/socket.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace ZRT {
namespace Proxy {

class IProxyConnection;

// One login attempt of a protocol handler: the user name and password a client sent, checked
// against the proxy's users through its CLoginGuard. The answer may take a while, and the handler
// waits for it like for a name lookup: a client address that guessed wrong too often waits for
// its slot (the handler's timer, then OnTimer), and a hashed password is verified on another
// thread (then the handler's Resume).
//
// Threads: the connection's thread for every operation; the answer of a hash comes on a pool
// thread, which only stores it and wakes the handler. No wake comes after Cancel (or the
// destructor) returns.
class CLoginCheck {
public:
    explicit CLoginCheck(IProxyConnection& connection);
    ~CLoginCheck();
    CLoginCheck(const CLoginCheck&) = delete;
    CLoginCheck& operator=(const CLoginCheck&) = delete;

    // True when the answer is known now (TakeResult gives it).
    bool Start(const std::string& user, const std::string& password);
    // The handler's timer is due; true when the answer is known now.
    bool OnTimer();
    // True once, with the answer; the attempt then counts for the client's address.
    bool TakeResult(bool& valid);
    // Gives the attempt up (the client went): it counts for nothing.
    void Cancel();

private:
    enum class EPhase { Idle, Delayed, Hashing, Answered };
    // What the hashing thread leaves for the connection's thread.
    struct SShared {
        std::mutex mutex; // guards the three below
        bool answered = false;
        bool valid = false;
        std::function<void()> wake;
    };

    bool Check();
    void Finish(bool valid);

    IProxyConnection& m_connection;
    EPhase m_phase = EPhase::Idle;
    std::string m_user;
    std::string m_password;
    sockaddr_storage m_client{};
    bool m_valid = false;
    std::shared_ptr<SShared> m_shared;
};

} // namespace Proxy
} // namespace ZRT
