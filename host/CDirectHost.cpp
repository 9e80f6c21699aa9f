#include "host/CDirectHost.h"

#include "host/CDirectHostOptions.h"
#include "host/CDirectServices.h"

namespace ZRT {
namespace Host {

struct CDirectHost::SParts {
    SDirectHostSettings settings;
    std::unique_ptr<CDirectServices> services;
};

CDirectHost::CDirectHost() : m_parts(new SParts()) {}

CDirectHost::~CDirectHost() = default;

int CDirectHost::SetOption(const char* name, const char* value, std::string* error)
{
    std::string reason;
    int result = OPTION_OK;
    if (!name) {
        reason = "no option name given";
        result = OPTION_UNKNOWN;
    } else if (m_parts->services) {
        reason = std::string("option '") + name + "' cannot change once the services run";
        result = OPTION_RUNNING;
    } else {
        switch (CDirectHostOptions::Apply(m_parts->settings, name, value, reason)) {
        case COptionText::EResult::Ok:
            break;
        case COptionText::EResult::Unknown:
            result = OPTION_UNKNOWN;
            break;
        case COptionText::EResult::BadValue:
            result = OPTION_BAD_VALUE;
            break;
        }
    }
    if (error)
        *error = reason;
    return result;
}

void CDirectHost::SetThreadHooks(void (*onStart)(void* context), void (*onStop)(void* context), void* context)
{
    m_parts->settings.threadStart = onStart;
    m_parts->settings.threadStop = onStop;
    m_parts->settings.threadContext = context;
}

void CDirectHost::SetSocketHook(int (*hook)(void* context, int socket), void* context)
{
    if (!hook) {
        m_parts->settings.socketHook = nullptr;
        return;
    }
    m_parts->settings.socketHook = [hook, context](int socket, SDirectHostSettings::ESocketPurpose) {
        return hook(context, socket) == 0;
    };
}

void CDirectHost::SetSocketPurposeHook(int (*hook)(void* context, int socket, int purpose), void* context)
{
    if (!hook) {
        m_parts->settings.socketHook = nullptr;
        return;
    }
    m_parts->settings.socketHook = [hook, context](int socket, SDirectHostSettings::ESocketPurpose purpose) {
        return hook(context, socket, static_cast<int>(purpose)) == 0;
    };
}

bool CDirectHost::Start()
{
    if (!m_parts->services)
        m_parts->services.reset(new CDirectServices(m_parts->settings));
    return IsRunning();
}

bool CDirectHost::IsRunning() const
{
    return m_parts->services && m_parts->services->GetError().empty();
}

std::string CDirectHost::GetError() const
{
    return m_parts->services ? m_parts->services->GetError() : "the services have not been started";
}

IZRTMultiPointLayer& CDirectHost::GetMultiPointLayer()
{
    Start();
    return m_parts->services->GetMultiPointLayer();
}

IResolveAddress& CDirectHost::GetResolver()
{
    Start();
    return m_parts->services->GetResolver();
}

IDatagramHandler& CDirectHost::GetDatagramHandler()
{
    Start();
    return m_parts->services->GetDatagramHandler();
}

IConnectionListener& CDirectHost::GetConnectionListener()
{
    Start();
    return m_parts->services->GetConnectionListener();
}

} // namespace Host
} // namespace ZRT
