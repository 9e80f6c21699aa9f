#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <atomic>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "transport/CByteBufferList.h"
#include "transport/CTCPIPAddress.h"

namespace {

using ZRT::CByteBuffer;
using ZRT::CByteBufferList;
using ZRT::CTCPIPAddress;

std::string Unread(const QOX::CRefCountPtr<CByteBuffer>& buffer)
{
    return std::string(reinterpret_cast<const char*>(buffer->GetData() + buffer->GetOffset()), buffer->GetUnread());
}

TEST(Address, IPv4RoundTripThroughSocketForm)
{
    CTCPIPAddress address(192, 168, 1, 20, 8080);
    sockaddr_storage raw{};
    int length = 28;
    ASSERT_TRUE(address.GetSockAddr(reinterpret_cast<sockaddr*>(&raw), &length));
    EXPECT_EQ(length, static_cast<int>(sizeof(sockaddr_in)));
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(&raw);
    EXPECT_EQ(v4->sin_family, AF_INET);
    EXPECT_EQ(ntohs(v4->sin_port), 8080);
    const unsigned char expected[4] = {192, 168, 1, 20};
    EXPECT_EQ(std::memcmp(&v4->sin_addr, expected, 4), 0);

    CTCPIPAddress copy;
    ASSERT_TRUE(copy.SetAddress(*reinterpret_cast<sockaddr*>(&raw), static_cast<unsigned int>(length)));
    EXPECT_EQ(copy.GetPortNumber(), 8080u);
    EXPECT_EQ(copy.ToString(), "192.168.1.20:8080");
    EXPECT_TRUE(copy.IsEqual(address));
}

TEST(Address, IPv6RoundTripAndClone)
{
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(443);
    inet_pton(AF_INET6, "2001:db8::5", &v6.sin6_addr);
    CTCPIPAddress address;
    ASSERT_TRUE(address.SetAddress(*reinterpret_cast<sockaddr*>(&v6), sizeof(v6)));
    QOX::CRefCountPtr<ZRT::IZRTConnectionAddress> clone(address.Clone());
    EXPECT_EQ(clone->GetPortNumber(), 443u);
    EXPECT_EQ(clone->ToString(), "[2001:db8::5]:443");
    sockaddr_storage raw{};
    int length = 28;
    ASSERT_TRUE(clone->GetSockAddr(reinterpret_cast<sockaddr*>(&raw), &length));
    EXPECT_EQ(length, 28);
    EXPECT_EQ(std::memcmp(&raw, &v6, sizeof(v6)), 0);
}

TEST(Address, RejectsWhatCannotBeUsed)
{
    CTCPIPAddress address;
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    EXPECT_FALSE(address.SetAddress(*reinterpret_cast<sockaddr*>(&v4), 8)); // too short
    sockaddr unknown{};
    unknown.sa_family = AF_UNIX;
    EXPECT_FALSE(address.SetAddress(unknown, sizeof(unknown)));
    EXPECT_TRUE(address.IsEmpty());
    sockaddr_storage raw{};
    int length = 28;
    EXPECT_FALSE(address.GetSockAddr(reinterpret_cast<sockaddr*>(&raw), &length));

    ASSERT_TRUE(CTCPIPAddress::FromText("::1", 1)->GetSockAddr(reinterpret_cast<sockaddr*>(&raw), &length));
    int tooSmall = 16;
    EXPECT_FALSE(CTCPIPAddress::FromText("::1", 1)->GetSockAddr(reinterpret_cast<sockaddr*>(&raw), &tooSmall));
    EXPECT_FALSE(CTCPIPAddress::FromText("example.org", 80));
}

TEST(ByteBufferList, PeekAndDiscardAcrossBuffers)
{
    CByteBufferList list;
    list.AddBuffer(CByteBufferList::GetBuffer(reinterpret_cast<const unsigned char*>("hello "), 6));
    list.AddBuffer(CByteBufferList::GetBuffer(reinterpret_cast<const unsigned char*>("wide "), 5));
    list.AddBuffer(CByteBufferList::GetBuffer(reinterpret_cast<const unsigned char*>("world"), 5));
    EXPECT_EQ(list.GetSize(), 16u);

    char peeked[8] = {};
    ASSERT_TRUE(list.PeekBytes(4, reinterpret_cast<unsigned char*>(peeked), 7));
    EXPECT_EQ(std::string(peeked, 7), "o wide ");
    EXPECT_FALSE(list.PeekBytes(10, reinterpret_cast<unsigned char*>(peeked), 7));
    EXPECT_EQ(list.GetSize(), 16u);

    list.DiscardBytesFromStart(8);
    EXPECT_EQ(list.GetSize(), 8u);
    EXPECT_EQ(Unread(list.PopBuffer()), "de ");
    EXPECT_EQ(Unread(list.PopBuffer()), "world");
    EXPECT_FALSE(list.PopBuffer());
    EXPECT_EQ(list.GetSize(), 0u);
}

TEST(ByteBufferPool, ReusesOnlyBuffersNobodyHoldsAndNoOversizedOnes)
{
    auto first = CByteBufferList::GetBuffer(reinterpret_cast<const unsigned char*>("abc"), 3);
    CByteBuffer* raw = first.GetRawPointer();
    CByteBufferList::ReclaimBuffer(first); // the caller still holds it
    auto second = CByteBufferList::GetBuffer(reinterpret_cast<const unsigned char*>("xyz"), 3);
    EXPECT_NE(second.GetRawPointer(), raw);
    EXPECT_EQ(Unread(first), "abc");

    first.Reset();
    auto third = CByteBufferList::GetBuffer(reinterpret_cast<const unsigned char*>("123"), 3);
    EXPECT_EQ(third.GetRawPointer(), raw);
    EXPECT_EQ(Unread(third), "123");

    // Oversized buffers are not pooled.
    std::vector<unsigned char> big(CByteBufferList::POOLED_BUFFER_SIZE + 10, 'x');
    auto buffer = CByteBufferList::GetBuffer(big.data(), static_cast<unsigned int>(big.size()));
    EXPECT_EQ(buffer->GetUnread(), big.size());
    const unsigned int before = CByteBufferList::GetPoolSize();
    CByteBufferList::ReclaimBuffer(buffer);
    EXPECT_EQ(CByteBufferList::GetPoolSize(), before);
}

TEST(ByteBufferPool, ReleasingThePoolLeavesBuffersStillReadIntact)
{
    auto held = CByteBufferList::GetBuffer(reinterpret_cast<const unsigned char*>("kept"), 4);
    CByteBufferList::ReclaimBuffer(held); // still read by its caller
    CByteBufferList::ReclaimBuffer(CByteBufferList::GetBuffer(reinterpret_cast<const unsigned char*>("idle"), 4));
    ASSERT_GE(CByteBufferList::GetPoolSize(), 1u);
    CByteBufferList::ReleasePool();
    EXPECT_EQ(CByteBufferList::GetPoolSize(), 0u);
    EXPECT_EQ(Unread(held), "kept");
    // The pool fills again as buffers come back.
    CByteBufferList::ReclaimBuffer(held);
    held.Reset();
    EXPECT_EQ(CByteBufferList::GetPoolSize(), 1u);
}

TEST(ByteBufferPool, StaysBoundedAndConsistentUnderConcurrency)
{
    std::atomic<int> corrupted{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            std::vector<QOX::CRefCountPtr<CByteBuffer>> held;
            for (int i = 0; i < 2000; ++i) {
                const std::string payload = std::to_string(t) + ":" + std::to_string(i);
                auto buffer = CByteBufferList::GetBuffer(reinterpret_cast<const unsigned char*>(payload.data()),
                                                         static_cast<unsigned int>(payload.size()));
                held.push_back(buffer);
                if (held.size() > 300 || i % 7 == 0) {
                    for (auto& old : held)
                        CByteBufferList::ReclaimBuffer(old);
                    held.clear();
                }
                if (Unread(buffer) != payload)
                    corrupted.fetch_add(1);
            }
            for (auto& old : held)
                CByteBufferList::ReclaimBuffer(old);
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(corrupted.load(), 0);
    EXPECT_LE(CByteBufferList::GetPoolSize(), CByteBufferList::POOL_LIMIT);
}

} // namespace
