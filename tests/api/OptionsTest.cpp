// The C interface's options table, made of its own rows and the engine's and the direct host's:
// each option listed once and found by its name, and an engine option means the same through
// the C interface as through CProxy.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "api/COptionTable.h"
#include "host/CDirectHostOptions.h"
#include "proxy/core/CProxyOptions.h"

namespace ZRT {
namespace Api {
namespace {

TEST(OptionTableTest, EveryOptionOnceWithItsOwnersMeaning)
{
    std::set<std::string> names;
    int count = 0;
    for (const COptionTable::SOption* option; (option = COptionTable::At(count)) != nullptr; ++count) {
        ASSERT_NE(option->name, nullptr) << "option " << count << " has no row behind it";
        EXPECT_TRUE(names.insert(option->name).second) << option->name;
        EXPECT_EQ(COptionTable::Find(option->name), option);
        EXPECT_NE(option->description, nullptr);
        const auto* engine = Proxy::CProxyOptions::Find(option->name);
        const auto* host = Host::CDirectHostOptions::Find(option->name);
        // The C interface's own "auth" takes "none" and hashes; the host's lookup-timeout is the
        // one that counts there.
        if (engine && !host && std::string(option->name) != "auth") {
            EXPECT_STREQ(option->description, engine->description) << option->name;
        }
        if (host) {
            EXPECT_STREQ(option->description, host->description) << option->name;
        }
    }
    EXPECT_EQ(count, 32);
    EXPECT_EQ(COptionTable::Find("no-such-option"), nullptr);

    SEmbeddedSettings settings;
    std::string error;
    ASSERT_EQ(COptionTable::Apply(settings, "max-clients", "7", error), COptionTable::EResult::Ok);
    ASSERT_EQ(COptionTable::Apply(settings, "lookup-timeout", "3", error), COptionTable::EResult::Ok);
    EXPECT_EQ(settings.proxy.maxClients, 7);
    EXPECT_EQ(settings.host.lookupTimeoutMs, 3000);
    EXPECT_EQ(settings.proxy.lookupLimitMs, Proxy::SProxySettings().lookupLimitMs);
    EXPECT_EQ(COptionTable::Apply(settings, "max-clients", "-1", error), COptionTable::EResult::BadValue);
    EXPECT_EQ(error, "max-clients: '-1' is not a number from 0 to 1000000");
    ASSERT_EQ(COptionTable::Apply(settings, "max-clients", nullptr, error), COptionTable::EResult::Ok);
    EXPECT_EQ(settings.proxy.maxClients, 0);
}

// Names the upstream resolves would pass the address rules unseen: the two are refused together,
// whichever comes second, and the first stays as it was.
TEST(OptionTableTest, AnUpstreamThatResolvesNamesTakesNoDestinationRules)
{
    for (const char* rule : {"allow-destination", "deny-destination"}) {
        SEmbeddedSettings settings;
        std::string error;
        ASSERT_EQ(COptionTable::Apply(settings, "upstream", "socks5h://127.0.0.1:1080", error), COptionTable::EResult::Ok);
        EXPECT_EQ(COptionTable::Apply(settings, rule, "10.0.0.0/8", error), COptionTable::EResult::BadValue) << rule;
        EXPECT_NE(error.find("socks5h"), std::string::npos) << error;
        EXPECT_TRUE(settings.proxy.allowDestinations.empty() && settings.proxy.denyDestinations.empty());
        ASSERT_EQ(COptionTable::Apply(settings, "upstream", "socks5://127.0.0.1:1080", error), COptionTable::EResult::Ok);
        ASSERT_EQ(COptionTable::Apply(settings, rule, "10.0.0.0/8", error), COptionTable::EResult::Ok);
        EXPECT_EQ(COptionTable::Apply(settings, "upstream", "socks5h://127.0.0.1:1080", error),
                  COptionTable::EResult::BadValue);
        EXPECT_FALSE(settings.host.upstream.ResolvesNames());
    }
}

} // namespace
} // namespace Api
} // namespace ZRT
