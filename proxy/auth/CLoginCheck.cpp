#include "proxy/auth/CLoginCheck.h"

#include "proxy/auth/CLoginGuard.h"
#include "proxy/core/IProxyConnection.h"

namespace ZRT {
namespace Proxy {

CLoginCheck::CLoginCheck(IProxyConnection& connection) : m_connection(connection) {}

CLoginCheck::~CLoginCheck()
{
    Cancel();
}

bool CLoginCheck::Start(const std::string& user, const std::string& password)
{
    Cancel();
    m_user = user;
    m_password = password;
    int length = sizeof(m_client);
    m_client = sockaddr_storage{};
    m_connection.GetClientAddress().GetSockAddr(reinterpret_cast<sockaddr*>(&m_client), &length);
    const auto wait = m_connection.GetLoginGuard().Begin(m_client);
    if (wait.count() > 0) {
        m_phase = EPhase::Delayed;
        m_connection.SetHandlerTimer(static_cast<int>(wait.count()));
        return false;
    }
    return Check();
}

bool CLoginCheck::OnTimer()
{
    return m_phase == EPhase::Delayed && Check();
}

bool CLoginCheck::Check()
{
    CLoginGuard& guard = m_connection.GetLoginGuard();
    const SProxySettings& settings = m_connection.GetSettings();
    bool valid = false;
    if (guard.CheckNow(settings, m_user, m_password, valid)) {
        Finish(valid);
        return true;
    }
    auto shared = std::make_shared<SShared>();
    IProxyConnection* connection = &m_connection;
    shared->wake = [connection] { connection->WakeHandler(); };
    m_shared = shared;
    m_phase = EPhase::Hashing;
    const bool launched = guard.CheckAside(settings, m_user, m_password, [shared](bool answer) {
        std::lock_guard<std::mutex> hold(shared->mutex);
        shared->answered = true;
        shared->valid = answer;
        // Under the lock: a Cancel that returned has cleared it, and one that waits will.
        if (shared->wake)
            shared->wake();
    });
    if (launched)
        return false;
    Finish(false); // no thread to check on: nobody gets in unchecked
    return true;
}

void CLoginCheck::Finish(bool valid)
{
    m_valid = valid;
    m_phase = EPhase::Answered;
    m_password.clear();
    m_connection.GetLoginGuard().End(m_client, valid);
}

bool CLoginCheck::TakeResult(bool& valid)
{
    if (m_phase == EPhase::Hashing) {
        bool answered = false;
        bool answer = false;
        {
            std::lock_guard<std::mutex> hold(m_shared->mutex);
            answered = m_shared->answered;
            answer = m_shared->valid;
        }
        if (!answered)
            return false;
        m_shared.reset();
        Finish(answer);
    }
    if (m_phase != EPhase::Answered)
        return false;
    valid = m_valid;
    m_phase = EPhase::Idle;
    return true;
}

void CLoginCheck::Cancel()
{
    if (m_shared) {
        std::lock_guard<std::mutex> hold(m_shared->mutex);
        m_shared->wake = nullptr;
    }
    m_shared.reset();
    if (m_phase == EPhase::Delayed || m_phase == EPhase::Hashing)
        m_connection.GetLoginGuard().End(m_client, false, true);
    m_phase = EPhase::Idle;
    m_password.clear();
}

} // namespace Proxy
} // namespace ZRT
