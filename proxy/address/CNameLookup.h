#pragma once

#include <functional>
#include <mutex>
#include <string>

#include "proxy/address/CAddressManager.h"
#include "runtime/CRefCountPtr.h"
#include "transport/IZRTConnectionAddress.h"

namespace ZRT {
namespace Proxy {

// One name lookup of a protocol handler: started on the connection's thread, answered on the
// resolver's thread, which calls the wake-up given at construction so that the connection's
// thread comes back for the answer. Cancelled at the address manager when it is cancelled,
// restarted or destroyed, so no answer reaches a handler that is gone.
class CNameLookup : private CAddressManager::IWaiter {
public:
    using AddressPtr = CAddressManager::AddressPtr;

    explicit CNameLookup(std::function<void()> wake);
    ~CNameLookup();
    CNameLookup(const CNameLookup&) = delete;
    CNameLookup& operator=(const CNameLookup&) = delete;

    // True when the answer is known at once (TakeAnswer then gives it).
    bool Start(CAddressManager& manager, const std::string& key);
    // True once, with the answer (empty when the name did not resolve).
    bool TakeAnswer(AddressPtr& address);
    bool IsWaiting() const;
    void Cancel();

private:
    void OnLookupDone(const AddressPtr& address) override;

    std::function<void()> m_wake;
    CAddressManager* m_manager = nullptr;
    // Guards the three below: the answer is written on the resolver's thread.
    mutable std::mutex m_mutex;
    bool m_waiting = false;
    bool m_answered = false;
    AddressPtr m_address;
};

} // namespace Proxy
} // namespace ZRT
