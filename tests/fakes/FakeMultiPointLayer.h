#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "fakes/FakeDataLayer.h"
#include "transport/IZRTMultiPointLayer.h"

namespace ZRT {
namespace Testing {

// Opens FakeDataLayer links. A test can make Connect fail, or hook each new link to play the
// destination server (e.g. an echo, or a canned HTTP response).
class FakeMultiPointLayer : public IZRTMultiPointLayer, public Guarded {
public:
    using ConnectHook = std::function<void(FakeDataLayer& link, const IZRTConnectionAddress& destination)>;

    QOX::CRefCountPtr<IZRTDataLayer> Connect(const IZRTConnectionAddress& destination,
                                             const IZRTConnectionAddress& source) override
    {
        ConnectHook hook;
        QOX::CRefCountPtr<FakeDataLayer> link;
        Locked([&] {
            m_destinations.push_back(destination.ToString());
            m_sources.push_back(source.ToString());
            if (m_fail || m_refused.count(destination.ToString()) != 0)
                return;
            link = new FakeDataLayer();
            m_links.push_back(link);
            hook = m_hook;
        });
        if (!link)
            return {};
        if (hook)
            hook(*link, destination);
        return QOX::CRefCountPtr<IZRTDataLayer>(link.GetRawPointer());
    }

    // Connects at once, so the engine may call it on its event thread (unless told otherwise).
    bool ConnectsWithoutBlocking() const override { return Locked([&] { return m_nonBlocking; }); }
    void SetNonBlocking(bool nonBlocking) { Locked([&] { m_nonBlocking = nonBlocking; }); }
    void SetFail(bool fail) { Locked([&] { m_fail = fail; }); }
    // Destinations (ToString() form) that fail while others connect.
    void SetRefused(std::set<std::string> refused) { Locked([&] { m_refused = std::move(refused); }); }
    void SetOnConnect(ConnectHook hook) { Locked([&] { m_hook = std::move(hook); }); }
    // ToString() of each Connect's destination.
    std::vector<std::string> GetDestinations() const { return Locked([&] { return m_destinations; }); }
    // ToString() of the client each Connect was for.
    std::vector<std::string> GetSources() const { return Locked([&] { return m_sources; }); }
    QOX::CRefCountPtr<FakeDataLayer> GetLastLink() const
    {
        return Locked([&] { return m_links.empty() ? QOX::CRefCountPtr<FakeDataLayer>() : m_links.back(); });
    }
    int GetConnectCount() const { return Locked([&] { return static_cast<int>(m_destinations.size()); }); }
    // Drops the layer's own references to the links it made.
    void ForgetLinks() { Locked([&] { m_links.clear(); }); }

private:
    bool m_fail = false;
    bool m_nonBlocking = true;
    std::set<std::string> m_refused;
    ConnectHook m_hook;
    std::vector<std::string> m_destinations;
    std::vector<std::string> m_sources;
    std::vector<QOX::CRefCountPtr<FakeDataLayer>> m_links;
};

} // namespace Testing
} // namespace ZRT
