#pragma once

namespace ZRT {

// Owns one socket descriptor and closes it when it goes out of scope, unless released.
class CSocketHandle {
public:
    explicit CSocketHandle(int socket = -1) : m_socket(socket) {}
    ~CSocketHandle();
    CSocketHandle(const CSocketHandle&) = delete;
    CSocketHandle& operator=(const CSocketHandle&) = delete;
    CSocketHandle(CSocketHandle&& other) noexcept : m_socket(other.Release()) {}
    CSocketHandle& operator=(CSocketHandle&& other) noexcept
    {
        if (this != &other)
            Reset(other.Release());
        return *this;
    }

    int Get() const { return m_socket; }
    bool IsValid() const { return m_socket >= 0; }
    int Release();
    void Reset(int socket = -1);

private:
    int m_socket;
};

} // namespace ZRT
