#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "fakes/FakeDataLayer.h"
#include "transport/IZRTMultiPointLayer.h"

namespace ZRT {
namespace Testing {

// Opens FakeDataLayer links. A test can make Connect fail, or hook each new link to play the
// destination server (e.g. an echo, or a canned HTTP response).
class FakeMultiPointLayer : public IZRTMultiPointLayer {
public:
    using ConnectHook = std::function<void(FakeDataLayer& link, const IZRTConnectionAddress& destination)>;

    QOX::CRefCountPtr<IZRTDataLayer> Connect(const IZRTConnectionAddress& destination,
                                             const IZRTConnectionAddress& source) override;

    void SetFail(bool fail);
    void SetOnConnect(ConnectHook hook);
    std::vector<std::string> GetDestinations() const; // ToString() of each Connect's destination
    std::vector<QOX::CRefCountPtr<FakeDataLayer>> GetLinks() const;
    QOX::CRefCountPtr<FakeDataLayer> GetLastLink() const;
    int GetConnectCount() const;
    // Drops the layer's own references to the links it made.
    void ForgetLinks();

private:
    mutable std::mutex m_mutex;
    bool m_fail = false;
    ConnectHook m_hook;
    std::vector<std::string> m_destinations;
    std::vector<QOX::CRefCountPtr<FakeDataLayer>> m_links;
};

} // namespace Testing
} // namespace ZRT
