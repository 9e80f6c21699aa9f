#include "proxy/socks5/CConnectionProtocol_SOCKS5.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "proxy/address/CAddressManager.h"
#include "runtime/CSynchronizationObject.h"
#include "transport/CSocketUtils.h"
#include "transport/CTCPIPAddress.h"

namespace ZRT {
namespace Proxy {

namespace {

const unsigned char SOCKS_VERSION = 5;
const unsigned char METHOD_NO_AUTHENTICATION = 0x00;
const unsigned char METHOD_NONE_ACCEPTABLE = 0xFF;

enum ECommand { CMD_CONNECT = 1, CMD_BIND = 2, CMD_UDP_ASSOCIATE = 3 };
enum EAddressType { ATYP_IPV4 = 1, ATYP_DOMAIN = 3, ATYP_IPV6 = 4 };
enum EReply { REP_SUCCEEDED = 0, REP_REFUSED = 5, REP_COMMAND_NOT_SUPPORTED = 7, REP_ADDRESS_TYPE_NOT_SUPPORTED = 8 };

// Room for a sockaddr_in6, the largest address the handler deals with.
const int SOCKADDR_AREA_LENGTH = 28;
// VER CMD RSV, then the longest address block: ATYP, length, 255 name bytes, port.
const unsigned int MAX_REQUEST_LENGTH = 3 + 4 + 255;
const unsigned int MIN_UDP_DATAGRAM = 7;

using AddressPtr = QOX::CRefCountPtr<IZRTConnectionAddress>;

// Scoped hold of a CBuffer's lock.
class CBufferHold {
public:
    explicit CBufferHold(const CConnectionProtocol_SOCKS5::CBuffer& buffer) : m_buffer(buffer) { m_buffer.Lock(); }
    ~CBufferHold() { m_buffer.Unlock(); }
    CBufferHold(const CBufferHold&) = delete;
    CBufferHold& operator=(const CBufferHold&) = delete;

private:
    const CConnectionProtocol_SOCKS5::CBuffer& m_buffer;
};

void WritePort(unsigned char* out, uint16_t networkPort)
{
    const uint16_t port = ntohs(networkPort);
    out[0] = static_cast<unsigned char>(port >> 8);
    out[1] = static_cast<unsigned char>(port & 0xFF);
}

// Writes ATYP, address and port of an IPv4 or IPv6 socket address; the count, or -1 for any
// other family (nothing written).
int EncodeSocksAddress(unsigned char* out, const sockaddr* address)
{
    if (address->sa_family == AF_INET) {
        sockaddr_in v4;
        std::memcpy(&v4, address, sizeof(v4));
        out[0] = ATYP_IPV4;
        std::memcpy(out + 1, &v4.sin_addr, 4);
        WritePort(out + 5, v4.sin_port);
        return 7;
    }
    if (address->sa_family == AF_INET6) {
        sockaddr_in6 v6;
        std::memcpy(&v6, address, sizeof(v6));
        out[0] = ATYP_IPV6;
        std::memcpy(out + 1, &v6.sin6_addr, 16);
        WritePort(out + 17, v6.sin6_port);
        return 19;
    }
    return -1;
}

unsigned int ReadPort(const unsigned char* in)
{
    return static_cast<unsigned int>(in[0]) * 256 + in[1];
}

// Length of the address block that starts at ATYP, or 0 for an unknown type. For a domain name
// the length byte block[1] must be readable.
unsigned int SocksAddressLength(const unsigned char* block)
{
    switch (block[0]) {
    case ATYP_IPV4:
        return 7;
    case ATYP_DOMAIN:
        return 4u + block[1];
    case ATYP_IPV6:
        return 19;
    default:
        return 0;
    }
}

// The address manager's key for a domain-name block: the name, ":" and the port in decimal.
std::string DomainKey(const unsigned char* block)
{
    const unsigned int nameLength = block[1];
    std::string text(reinterpret_cast<const char*>(block + 2), nameLength);
    char port[16];
    std::snprintf(port, sizeof(port), "%d", static_cast<int>(ReadPort(block + 2 + nameLength)));
    text += ":";
    text += port;
    return text;
}

// Makes an address of a complete block; a domain name is resolved through the address manager,
// which may wait for the host's resolver. Empty when no address can be made.
AddressPtr DecodeSocksAddress(const unsigned char* block)
{
    if (block[0] == ATYP_IPV4)
        return AddressPtr(new CTCPIPAddress(block[1], block[2], block[3], block[4], ReadPort(block + 5)));
    if (block[0] == ATYP_IPV6) {
        sockaddr_in6 v6;
        std::memset(&v6, 0, sizeof(v6));
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(static_cast<uint16_t>(ReadPort(block + 17)));
        std::memcpy(&v6.sin6_addr, block + 1, 16);
        auto* address = new CTCPIPAddress();
        AddressPtr result(address);
        address->SetAddress(*reinterpret_cast<const sockaddr*>(&v6), sizeof(v6));
        return result;
    }
    if (block[0] == ATYP_DOMAIN)
        return CAddressManager::GetInstance()->ResolveAddress(DomainKey(block));
    return AddressPtr();
}

// The handler whose steps the current thread is running outside the worker, if any.
thread_local const void* t_steppingHandler = nullptr;

bool IsRelayState(int state)
{
    return state == CConnectionProtocol_SOCKS5::Connected || state == CConnectionProtocol_SOCKS5::Bound;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// CBuffer

CConnectionProtocol_SOCKS5::CBuffer::CBuffer() = default;

CConnectionProtocol_SOCKS5::CBuffer::~CBuffer()
{
    std::free(m_data);
}

bool CConnectionProtocol_SOCKS5::CBuffer::AppendData(const char* data, unsigned int length)
{
    if (length == 0 || !data)
        return false;
    QOX::CLock hold(m_mutex);
    const uint32_t size = m_size.load();
    if (length > UINT32_MAX - size)
        return false;
    const uint32_t needed = size + length;
    if (needed > m_capacity) {
        void* grown = std::realloc(m_data, needed);
        if (!grown)
            return false;
        m_data = static_cast<unsigned char*>(grown);
        m_capacity = needed;
    }
    std::memcpy(m_data + size, data, length);
    m_size.store(needed);
    return true;
}

bool CConnectionProtocol_SOCKS5::CBuffer::AddData(const char* data, unsigned int length)
{
    return AppendData(data, length);
}

void CConnectionProtocol_SOCKS5::CBuffer::Consume(unsigned int count)
{
    QOX::CLock hold(m_mutex);
    const uint32_t size = m_size.load();
    if (size <= count) {
        m_size.store(0);
        return;
    }
    std::memmove(m_data, m_data + count, size - count);
    m_size.store(size - count);
}

void CConnectionProtocol_SOCKS5::CBuffer::Clear()
{
    QOX::CLock hold(m_mutex);
    m_size.store(0);
}

unsigned int CConnectionProtocol_SOCKS5::CBuffer::GetSize() const
{
    QOX::CLock hold(m_mutex);
    return m_size.load();
}

const unsigned char* CConnectionProtocol_SOCKS5::CBuffer::GetData() const
{
    QOX::CLock hold(m_mutex);
    return m_data;
}

void CConnectionProtocol_SOCKS5::CBuffer::Lock() const
{
    m_mutex.lock();
}

void CConnectionProtocol_SOCKS5::CBuffer::Unlock() const
{
    m_mutex.unlock();
}

// ---------------------------------------------------------------------------------------------
// Life cycle

CConnectionProtocol_SOCKS5::CConnectionProtocol_SOCKS5(IProxyConnection& connection)
    : QOX::CThread(false), m_connection(connection), m_state(AwaitingGreeting), m_dataEvent(true), m_bindEvent(true)
{
    std::memset(&m_udpClientAddress, 0, sizeof(m_udpClientAddress));
}

CConnectionProtocol_SOCKS5::~CConnectionProtocol_SOCKS5()
{
    // The connection has normally terminated us already; then this does nothing.
    CConnectionProtocol_SOCKS5::Terminate(); // no dynamic dispatch from a destructor
    // Terminate returns at once when it already ran, or still runs, on a host service's thread.
    m_callbacks.WaitForOthers();
    const int status = GetThreadStatus();
    if ((status == STATUS_RUNNING || status == STATUS_STOPPING) && !IsCurrentThread(*this)) {
        m_stopEvent.SignalEvent();
        m_dataEvent.SignalEvent();
        StopThread(-1);
    }
    delete m_udpThread;
    m_udpThread = nullptr;
    m_dataEvent.SignalEvent();
    m_bindDataLayer.Reset();
    m_bindListenAddress.Reset();
    m_bindPeerAddress.Reset();
    m_destination.Reset();
}

// The worker starts only when a step needs to wait (see the class comment).
void CConnectionProtocol_SOCKS5::Init()
{
}

void CConnectionProtocol_SOCKS5::Terminate()
{
    {
        // The worker clears the buffer once it sees the flag: raising it and handing on what
        // the client sent last happen under the buffer lock, so the bytes go out first.
        CBufferHold hold(m_buffer);
        if (m_terminated.exchange(true))
            return;
        FlushClientBytes();
    }
    TerminateUdpRelay();
    TerminateBind();
    m_stopEvent.SignalEvent();
    m_dataEvent.SignalEvent();
}

// The client has gone, the other side has not: what the client sent before it closed is
// handed on rather than dropped with the worker. The caller holds the buffer lock, so this
// follows whatever relay step the worker is in.
void CConnectionProtocol_SOCKS5::FlushClientBytes()
{
    // Inside a step (on the worker or inline), that step still owns the bytes.
    if (IsSteppingHere())
        return;
    const int state = m_state.Get();
    if (state == Connected)
        RelayToHost();
    else if (state == Bound)
        RelayToBindStream();
}

void CConnectionProtocol_SOCKS5::TerminateUdpRelay()
{
    int handle = -1;
    int udpSocket = -1;
    CUDPListeningThread* thread = nullptr;
    {
        QOX::CLock hold(m_udpMutex);
        handle = m_datagramHandle.exchange(-1);
        udpSocket = m_udpSocket.exchange(-1);
        thread = m_udpThread;
        m_udpThread = nullptr;
    }
    if (handle != -1) {
        IDatagramHandler* handler = m_connection.GetDatagramHandler();
        if (handler)
            handler->UnregisterReceiver(handle);
    }
    // Waits for the relay thread; it never sleeps without watching its stop event.
    delete thread;
    if (udpSocket != -1)
        CSocketUtils::CloseSocket(udpSocket);
}

void CConnectionProtocol_SOCKS5::TerminateBind()
{
    QOX::CRefCountPtr<IZRTDataLayer> stream;
    AddressPtr listenAddress;
    {
        QOX::CLock hold(m_bindMutex);
        stream = std::move(m_bindDataLayer);
        listenAddress = std::move(m_bindListenAddress);
    }
    m_bindRelaying.store(false);
    if (stream) {
        stream->RemoveNotification(this);
        stream->Disconnect();
    }
    if (listenAddress) {
        IConnectionListener* listener = m_connection.GetConnectionListener();
        if (listener)
            listener->StopListening(*listenAddress);
    }
}

void CConnectionProtocol_SOCKS5::DisconnectClient()
{
    if (m_connection.IsConnectedToClient())
        m_connection.DisconnectClient();
}

bool CConnectionProtocol_SOCKS5::IsStopping()
{
    return m_terminated.load() ||
           QOX::CSynchronizationObject::WaitForObject(m_stopEvent, 0) != QOX::CSynchronizationObject::WAIT_TIMEOUT;
}

// ---------------------------------------------------------------------------------------------
// Connection side

void CConnectionProtocol_SOCKS5::HandleRequest(const char* data, int length)
{
    if (m_state.Get() == Closed)
        return;
    const bool inlineSteps = !m_workerStarted.load();
    // Relaying with nothing held: straight to the host, without the copy into the buffer. Only
    // this thread appends, so an empty buffer stays empty while we look.
    if (PassesRequestsThrough() && data && length > 0) {
        m_connection.SendToHost(data, length);
        return;
    }
    if (!m_buffer.AddData(data, length > 0 ? static_cast<unsigned int>(length) : 0u)) {
        m_state = Closed;
        m_buffer.Clear();
        DisconnectClient();
        return;
    }
    if (inlineSteps)
        ProcessInline();
    else
        m_dataEvent.SignalEvent();
}

void CConnectionProtocol_SOCKS5::ProcessInline()
{
    if (IsStopping())
        return;
    bool open = false;
    {
        const void* outer = t_steppingHandler;
        t_steppingHandler = this;
        open = ProcessBuffer();
        t_steppingHandler = outer;
    }
    if (!open) {
        m_buffer.Clear();
        DisconnectClient();
        return;
    }
    if (m_handOver)
        StartWorker();
}

void CConnectionProtocol_SOCKS5::StartWorker()
{
    m_handOver = false;
    m_workerStarted.store(true);
    // The worker looks at the buffer as soon as it runs.
    m_dataEvent.SignalEvent();
    // Without its worker nobody would ever answer the client.
    if (!StartThread(false))
        DisconnectClient();
}

bool CConnectionProtocol_SOCKS5::IsSteppingHere() const
{
    return t_steppingHandler == this || IsCurrentThread(*this);
}

bool CConnectionProtocol_SOCKS5::NeedsWorker(const unsigned char* request) const
{
    if (IsCurrentThread(*this))
        return false;
    if (request[1] == CMD_BIND)
        return true;
    if (request[3] != ATYP_DOMAIN)
        return false;
    AddressPtr cached;
    return !CAddressManager::GetInstance()->FindAddressInCache(DomainKey(request + 3), cached);
}

void CConnectionProtocol_SOCKS5::HandleResponse(const char* data, int length)
{
    if (!data || length <= 0)
        return;
    // Only this thread sends host bytes, and the worker turns to Connected only after it passed
    // on what was held, so a direct send never overtakes held bytes.
    if (IsRelayState(m_state.Get())) {
        m_connection.SendToClient(data, length);
        return;
    }
    QOX::CLock hold(m_responseMutex);
    if (IsRelayState(m_state.Get()))
        m_connection.SendToClient(data, length);
    else if (m_holdResponses)
        m_heldResponses.append(data, static_cast<size_t>(length));
}

unsigned int CConnectionProtocol_SOCKS5::GetRequestBacklog() const
{
    unsigned int backlog = m_buffer.PeekSize();
    if (m_state.Get() != Bound)
        return backlog;
    QOX::CRefCountPtr<IZRTDataLayer> stream;
    {
        QOX::CLock hold(m_bindMutex);
        stream = m_bindDataLayer;
    }
    if (stream)
        backlog += stream->GetSendBacklog();
    return backlog;
}

// ---------------------------------------------------------------------------------------------
// Worker

int CConnectionProtocol_SOCKS5::Run()
{
    while (m_state.Get() != Closed) {
        if (QOX::CSynchronizationObject::WaitForObject(m_dataEvent, -1) != QOX::CSynchronizationObject::WAIT_SIGNALLED)
            break;
        if (IsStopping())
            break;
        m_dataEvent.ResetEvent();
        // A stop signalled just before the reset was swallowed with it: look once more.
        if (IsStopping())
            break;
        if (!ProcessBuffer())
            break;
    }
    m_buffer.Clear();
    // May end in this object's destruction (the connection can go away on this thread):
    // nothing of it is touched afterwards.
    DisconnectClient();
    return 0;
}

// Steps while steps make progress and bytes remain, so a client that sends greeting, request
// and payload at once does not wait for another wake-up. False once the exchange is over.
bool CConnectionProtocol_SOCKS5::ProcessBuffer()
{
    for (;;) {
        const int state = m_state.Get();
        if (state == Closed)
            return false;
        const uint32_t consumedBefore = m_consumedBytes.load();
        const int next = Step(state);
        StoreState(next);
        if (m_state.Get() == Closed)
            return false;
        const bool consumed = m_consumedBytes.load() != consumedBefore;
        // The connection looks at the backlog again; inline it does so after this call anyway.
        if (consumed && IsCurrentThread(*this))
            m_connection.WakeConnection();
        if (m_handOver || m_buffer.GetSize() == 0 || IsStopping())
            return true;
        if (!consumed && next == state)
            return true;
    }
}

// HandleRequest may have closed the exchange meanwhile; that is never undone.
void CConnectionProtocol_SOCKS5::StoreState(int next)
{
    int current = m_state.Get();
    while (current != Closed && !m_state.CompareExchange(current, next))
        current = m_state.Get();
}

int CConnectionProtocol_SOCKS5::Step(int state)
{
    switch (state) {
    case AwaitingGreeting:
    case GreetingIncomplete:
        return ParseGreeting();
    case AwaitingRequest:
        return ParseRequest();
    case Connected:
        return RelayToHost();
    case Bound:
        return RelayToBindStream();
    case UdpAssociated:
        // The TCP connection of an association carries nothing; a byte on it ends everything.
        return m_buffer.GetSize() > 0 ? Closed : UdpAssociated;
    default:
        return Closed;
    }
}

void CConnectionProtocol_SOCKS5::ConsumeClientBytes(unsigned int count)
{
    m_buffer.Consume(count);
    m_consumedBytes += count;
}

int CConnectionProtocol_SOCKS5::ParseGreeting()
{
    const int state = m_state.Get();
    if (state != AwaitingGreeting && state != GreetingIncomplete)
        return Closed;
    bool accepted = false;
    {
        CBufferHold hold(m_buffer);
        const unsigned int size = m_buffer.GetSize();
        const unsigned char* data = m_buffer.GetData();
        if (size < 3)
            return GreetingIncomplete;
        if (data[0] != SOCKS_VERSION)
            return Closed;
        const unsigned int methods = data[1];
        if (size < methods + 2)
            return GreetingIncomplete;
        accepted = std::memchr(data + 2, METHOD_NO_AUTHENTICATION, methods) != nullptr;
        ConsumeClientBytes(methods + 2);
    }
    const char reply[2] = {static_cast<char>(SOCKS_VERSION),
                           static_cast<char>(accepted ? METHOD_NO_AUTHENTICATION : METHOD_NONE_ACCEPTABLE)};
    m_connection.SendToClient(reply, 2);
    return accepted ? AwaitingRequest : Closed;
}

int CConnectionProtocol_SOCKS5::ParseRequest()
{
    const int state = m_state.Get();
    if (state != AwaitingRequest && state != GreetingIncomplete)
        return Closed;
    // The request is copied out so that resolving a name does not hold the buffer lock, which
    // the connection's thread needs to go on appending.
    unsigned char request[MAX_REQUEST_LENGTH];
    unsigned int length = 0;
    {
        CBufferHold hold(m_buffer);
        const unsigned int size = m_buffer.GetSize();
        const unsigned char* data = m_buffer.GetData();
        if (size < 4)
            return AwaitingRequest;
        if (data[0] != SOCKS_VERSION)
            return Closed;
        if (data[3] == ATYP_DOMAIN && size < 5)
            return AwaitingRequest;
        const unsigned int block = SocksAddressLength(data + 3);
        if (block != 0) {
            length = 3 + block;
            if (size < length)
                return AwaitingRequest;
            std::memcpy(request, data, length);
        }
    }
    if (length == 0) {
        SendCommandResponse(REP_ADDRESS_TYPE_NOT_SUPPORTED);
        return Closed;
    }
    if (NeedsWorker(request)) {
        // Left in the buffer for the worker, which takes this same step again.
        m_handOver = true;
        return AwaitingRequest;
    }
    AddressPtr address = DecodeSocksAddress(request + 3);
    if (!address) {
        SendCommandResponse(REP_ADDRESS_TYPE_NOT_SUPPORTED);
        return Closed;
    }
    const unsigned char command = request[1];
    ConsumeClientBytes(length);
    m_destination = address;
    switch (command) {
    case CMD_CONNECT:
        return HandleTCPConnect(address);
    case CMD_BIND:
        return HandleTCPBind(address);
    case CMD_UDP_ASSOCIATE:
        return HandleUDPAssociate(address);
    default:
        SendCommandResponse(REP_COMMAND_NOT_SUPPORTED);
        return Closed;
    }
}

int CConnectionProtocol_SOCKS5::RelayToHost()
{
    CBufferHold hold(m_buffer);
    const unsigned int size = m_buffer.GetSize();
    if (size == 0)
        return Connected;
    m_connection.SendToHost(reinterpret_cast<const char*>(m_buffer.GetData()), static_cast<int>(size));
    ConsumeClientBytes(size);
    return Connected;
}

int CConnectionProtocol_SOCKS5::RelayToBindStream()
{
    CBufferHold hold(m_buffer);
    const unsigned int size = m_buffer.GetSize();
    if (size == 0)
        return Bound;
    QOX::CRefCountPtr<IZRTDataLayer> stream;
    bool hasPeer = false;
    {
        QOX::CLock bindHold(m_bindMutex);
        stream = m_bindDataLayer;
        hasPeer = static_cast<bool>(m_bindPeerAddress);
    }
    if (stream && hasPeer)
        stream->SendData(m_buffer.GetData(), static_cast<int>(size));
    ConsumeClientBytes(size);
    return Bound;
}

// ---------------------------------------------------------------------------------------------
// Replies

void CConnectionProtocol_SOCKS5::SendResponse(int code, const sockaddr* address, int /*length*/)
{
    unsigned char reply[64];
    std::memset(reply, 0, sizeof(reply));
    reply[0] = SOCKS_VERSION;
    reply[1] = static_cast<unsigned char>(code);
    reply[2] = 0;
    const int written = EncodeSocksAddress(reply + 3, address);
    if (written < 1)
        return;
    m_connection.SendToClient(reinterpret_cast<const char*>(reply), written + 3);
}

void CConnectionProtocol_SOCKS5::SendResponse(int code, const IZRTConnectionAddress& address)
{
    sockaddr_storage area;
    std::memset(&area, 0, sizeof(area));
    int length = SOCKADDR_AREA_LENGTH;
    address.GetSockAddr(reinterpret_cast<sockaddr*>(&area), &length);
    SendResponse(code, reinterpret_cast<const sockaddr*>(&area), length);
}

void CConnectionProtocol_SOCKS5::SendCommandResponse(int code)
{
    sockaddr_in own;
    std::memset(&own, 0, sizeof(own));
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = htonl(INADDR_ANY);
    own.sin_port = htons(static_cast<uint16_t>(m_connection.GetClientPort()));
    SendResponse(code, reinterpret_cast<const sockaddr*>(&own), sizeof(own));
}

// ---------------------------------------------------------------------------------------------
// CONNECT

int CConnectionProtocol_SOCKS5::HandleTCPConnect(AddressPtr address)
{
    {
        QOX::CLock hold(m_responseMutex);
        m_holdResponses = true;
    }
    if (!m_connection.ConnectToHost(std::move(address))) {
        QOX::CLock hold(m_responseMutex);
        m_holdResponses = false;
        m_heldResponses.clear();
        SendCommandResponse(REP_REFUSED);
        return Closed;
    }
    SendCommandResponse(REP_SUCCEEDED);
    QOX::CLock hold(m_responseMutex);
    if (!m_heldResponses.empty())
        m_connection.SendToClient(m_heldResponses.data(), static_cast<int>(m_heldResponses.size()));
    m_heldResponses.clear();
    m_holdResponses = false;
    StoreState(Connected);
    return Connected;
}

// ---------------------------------------------------------------------------------------------
// BIND

// The three command handlers share one by-value signature.
int CConnectionProtocol_SOCKS5::HandleTCPBind(AddressPtr address) // NOLINT(performance-unnecessary-value-param)
{
    IConnectionListener* listener = m_connection.GetConnectionListener();
    if (!listener || !address || !StartBindListener(*listener, *address)) {
        SendCommandResponse(REP_REFUSED);
        return Closed;
    }
    AddressPtr listenAddress;
    {
        QOX::CLock hold(m_bindMutex);
        listenAddress = m_bindListenAddress;
    }
    if (listenAddress)
        SendResponse(REP_SUCCEEDED, *listenAddress);

    WaitForBindConnection();

    QOX::CRefCountPtr<IZRTDataLayer> stream;
    AddressPtr peer;
    {
        QOX::CLock hold(m_bindMutex);
        stream = m_bindDataLayer;
        peer = m_bindPeerAddress;
        if (stream && !peer)
            m_bindDataLayer.Reset();
        m_bindTaken = static_cast<bool>(stream);
    }
    if (!stream) {
        SendCommandResponse(REP_REFUSED);
        return Closed;
    }
    if (!peer) {
        stream->Disconnect();
        SendCommandResponse(REP_REFUSED);
        return Closed;
    }
    SendResponse(REP_SUCCEEDED, *peer);
    stream->AddNotification(this);
    if (m_terminated.load()) {
        // Terminate took the stream out before we registered; it cannot undo what it missed.
        stream->RemoveNotification(this);
        return Closed;
    }
    m_bindRelaying.store(true);
    // A peer that already closed reports it to nobody: forward what it left and end.
    if (!stream->IsConnected())
        m_bindFinalDrain.store(true);
    // Bytes the peer sent before we registered may be waiting without a notification.
    DrainBindStream(*stream);
    return m_bindFinalDrain.load() ? Closed : Bound;
}

bool CConnectionProtocol_SOCKS5::StartBindListener(IConnectionListener& listener, const IZRTConnectionAddress& address)
{
    AddressPtr listening = listener.StartListening(address, 1, this);
    if (!listening)
        return false;
    bool terminated = false;
    {
        QOX::CLock hold(m_bindMutex);
        terminated = m_terminated.load();
        if (!terminated)
            m_bindListenAddress = listening;
    }
    if (terminated)
        listener.StopListening(*listening);
    return !terminated;
}

// Sleeps until a host connects or the handler is stopped.
void CConnectionProtocol_SOCKS5::WaitForBindConnection()
{
    for (;;) {
        m_bindEvent.ResetEvent();
        {
            QOX::CLock hold(m_bindMutex);
            if (m_bindDataLayer)
                return;
        }
        if (IsStopping())
            return;
        pollfd events[2] = {{m_stopEvent.GetWaitHandle(), POLLIN, 0}, {m_bindEvent.GetWaitHandle(), POLLIN, 0}};
        if (poll(events, 2, -1) < 0 && errno != EINTR)
            return;
    }
}

void CConnectionProtocol_SOCKS5::OnConnectionEstablished(const IZRTConnectionAddress& peer,
                                                        const IZRTConnectionAddress& /*local*/,
                                                        IZRTDataLayer& stream)
{
    QOX::CCallGate::CScope inside(m_callbacks);
    AddressPtr peerCopy(peer.Clone());
    QOX::CRefCountPtr<IZRTDataLayer> accepted(&stream);
    QOX::CRefCountPtr<IZRTDataLayer> replaced;
    bool refused = false;
    {
        QOX::CLock hold(m_bindMutex);
        refused = m_terminated.load() || m_bindTaken;
        if (!refused) {
            replaced = std::move(m_bindDataLayer);
            m_bindPeerAddress = peerCopy;
            m_bindDataLayer = accepted;
        }
    }
    // A BIND completes once: a connection that nobody will relay is closed at once.
    if (refused)
        stream.Disconnect();
    if (replaced && replaced.Get() != &stream)
        replaced->Disconnect();
    if (!refused)
        m_bindEvent.SignalEvent();
}

void CConnectionProtocol_SOCKS5::OnDataReceived(IZRTDataLayer& dataLayer)
{
    QOX::CCallGate::CScope inside(m_callbacks);
    DrainBindStream(dataLayer);
}

void CConnectionProtocol_SOCKS5::OnConnectionClosed(IZRTDataLayer& dataLayer)
{
    QOX::CCallGate::CScope inside(m_callbacks);
    // What the peer sent before closing still goes to the client, past the backlog bound;
    // the thread that forwards the last of it drops the client.
    m_bindFinalDrain.store(true);
    DrainBindStream(dataLayer);
}

void CConnectionProtocol_SOCKS5::OnSendDrained(IZRTDataLayer& /*dataLayer*/)
{
    QOX::CCallGate::CScope inside(m_callbacks);
    m_connection.WakeConnection();
}

void CConnectionProtocol_SOCKS5::OnClientDrained()
{
    if (!m_bindRelaying.load())
        return;
    QOX::CRefCountPtr<IZRTDataLayer> stream;
    {
        QOX::CLock hold(m_bindMutex);
        stream = m_bindDataLayer;
    }
    if (stream)
        DrainBindStream(*stream);
}

// Whoever raises the request count from 0 forwards, and goes on until no request came in
// meanwhile; the others return at once. Bytes thus leave the stream on one thread at a time.
void CConnectionProtocol_SOCKS5::DrainBindStream(IZRTDataLayer& stream)
{
    if (m_bindDrainRequests.fetch_add(1) != 0)
        return;
    for (;;) {
        const int served = m_bindDrainRequests.load();
        ForwardBindStream(stream);
        if (m_bindDrainRequests.fetch_sub(served) == served)
            break;
    }
    // The peer has closed and everything it sent is on its way: the client goes too.
    if (m_bindFinalDrain.load())
        DisconnectClient();
}

void CConnectionProtocol_SOCKS5::ForwardBindStream(IZRTDataLayer& stream)
{
    unsigned char chunk[BIND_CHUNK_SIZE];
    for (;;) {
        if (!m_bindFinalDrain.load() && m_connection.GetClientBacklog() > BIND_CLIENT_BACKLOG_LIMIT)
            return; // OnClientDrained pulls the rest
        const int received = stream.ReceiveData(chunk, sizeof(chunk));
        if (received <= 0)
            return;
        if (!m_connection.SendToClient(reinterpret_cast<const char*>(chunk), received))
            return;
    }
}

// ---------------------------------------------------------------------------------------------
// UDP ASSOCIATE

int CConnectionProtocol_SOCKS5::HandleUDPAssociate(AddressPtr address) // NOLINT(performance-unnecessary-value-param)
{
    IDatagramHandler* handler = m_connection.GetDatagramHandler();
    if (!handler || !address) {
        SendCommandResponse(REP_REFUSED);
        return Closed;
    }
    const int udpSocket = OpenUdpSocket();
    if (udpSocket < 0) {
        SendCommandResponse(REP_REFUSED);
        return Closed;
    }
    const int handle = handler->RegisterReceiver(*address, this);
    if (handle == -1) {
        CSocketUtils::CloseSocket(udpSocket);
        SendCommandResponse(REP_REFUSED);
        return Closed;
    }
    const int enable = 1;
    setsockopt(udpSocket, SOL_SOCKET, SO_BROADCAST, &enable, sizeof(enable));
    sockaddr_in local;
    std::memset(&local, 0, sizeof(local));
    socklen_t localLength = sizeof(local);
    getsockname(udpSocket, reinterpret_cast<sockaddr*>(&local), &localLength);

    // Published before the reply: a relay thread that cannot start still gets REP 5 out.
    if (!PublishUdpRelay(udpSocket, handle)) {
        handler->UnregisterReceiver(handle);
        CSocketUtils::CloseSocket(udpSocket);
        SendCommandResponse(REP_REFUSED);
        return Closed;
    }
    SendResponse(REP_SUCCEEDED, reinterpret_cast<const sockaddr*>(&local), sizeof(local));
    return UdpAssociated;
}

int CConnectionProtocol_SOCKS5::OpenUdpSocket()
{
    const int udpSocket = socket(AF_INET, SOCK_DGRAM, 0);
    if (udpSocket < 0)
        return -1;
    sockaddr_in any;
    std::memset(&any, 0, sizeof(any));
    any.sin_family = AF_INET;
    any.sin_addr.s_addr = htonl(INADDR_ANY);
    any.sin_port = 0;
    if (bind(udpSocket, reinterpret_cast<const sockaddr*>(&any), sizeof(any)) != 0) {
        CSocketUtils::CloseSocket(udpSocket);
        return -1;
    }
    return udpSocket;
}

// False when Terminate came first (or the thread cannot start): the caller undoes the
// registration and the socket, which nobody else knows of.
bool CConnectionProtocol_SOCKS5::PublishUdpRelay(int udpSocket, int handle)
{
    QOX::CLock hold(m_udpMutex);
    if (m_terminated.load())
        return false;
    std::unique_ptr<CUDPListeningThread> thread(new CUDPListeningThread(this));
    m_udpSocket.store(udpSocket);
    m_datagramHandle.store(handle);
    if (!thread->StartThread(false)) {
        m_udpSocket.store(-1);
        m_datagramHandle.store(-1);
        return false;
    }
    m_udpThread = thread.release();
    return true;
}

void CConnectionProtocol_SOCKS5::OnDatagramReceived(int /*handle*/, const IZRTConnectionAddress& source,
                                                   const unsigned char* data, int length)
{
    QOX::CCallGate::CScope inside(m_callbacks);
    if (m_state.Get() != UdpAssociated || length < 0 || (length > 0 && !data))
        return;
    const int udpSocket = m_udpSocket.load();
    if (udpSocket == -1)
        return;
    sockaddr_storage area;
    std::memset(&area, 0, sizeof(area));
    int areaLength = SOCKADDR_AREA_LENGTH;
    source.GetSockAddr(reinterpret_cast<sockaddr*>(&area), &areaLength);

    std::vector<unsigned char> datagram(3 + 19 + static_cast<size_t>(length));
    const int block = EncodeSocksAddress(datagram.data() + 3, reinterpret_cast<const sockaddr*>(&area));
    if (block < 1)
        return;
    if (length > 0)
        std::memcpy(datagram.data() + 3 + block, data, static_cast<size_t>(length));

    sockaddr_in6 client;
    {
        QOX::CLock hold(m_udpMutex);
        client = m_udpClientAddress;
    }
    if (client.sin6_family == AF_UNSPEC)
        return; // no client datagram yet: nowhere to send it
    sendto(udpSocket, datagram.data(), 3 + static_cast<size_t>(block) + static_cast<size_t>(length), 0,
           reinterpret_cast<const sockaddr*>(&client), SOCKADDR_AREA_LENGTH);
}

// ---------------------------------------------------------------------------------------------
// CUDPListeningThread

CConnectionProtocol_SOCKS5::CUDPListeningThread::CUDPListeningThread(CConnectionProtocol_SOCKS5* owner)
    : QOX::CThread(false), m_owner(owner)
{
}

CConnectionProtocol_SOCKS5::CUDPListeningThread::~CUDPListeningThread()
{
    const int status = GetThreadStatus();
    if (status == STATUS_RUNNING || status == STATUS_STOPPING)
        StopThread(-1);
}

int CConnectionProtocol_SOCKS5::CUDPListeningThread::Run()
{
    IDatagramHandler* handler = m_owner->m_connection.GetDatagramHandler();
    if (!handler)
        return 0;
    for (;;) {
        if (QOX::CSynchronizationObject::WaitForObject(m_stopEvent, 0) != QOX::CSynchronizationObject::WAIT_TIMEOUT)
            return 0;
        const int udpSocket = m_owner->m_udpSocket.load();
        if (udpSocket == -1)
            return 0;
        pollfd events[2] = {{udpSocket, POLLIN, 0}, {m_stopEvent.GetWaitHandle(), POLLIN, 0}};
        if (poll(events, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            return 0;
        }
        if (events[0].revents & POLLNVAL)
            return 0;
        if (events[0].revents & (POLLIN | POLLERR))
            RelayDatagram(*handler, udpSocket);
    }
}

void CConnectionProtocol_SOCKS5::CUDPListeningThread::RelayDatagram(IDatagramHandler& handler, int udpSocket)
{
    unsigned char datagram[UDP_DATAGRAM_SIZE];
    sockaddr_in6 sender;
    std::memset(&sender, 0, sizeof(sender));
    socklen_t senderLength = SOCKADDR_AREA_LENGTH;
    // Non-blocking: a readiness report is no promise (a datagram with a bad checksum is
    // dropped by the kernel), and this thread must keep watching its stop event.
    const ssize_t received = recvfrom(udpSocket, datagram, sizeof(datagram), MSG_DONTWAIT,
                                      reinterpret_cast<sockaddr*>(&sender), &senderLength);
    if (received < 0)
        return;
    unsigned int header = 0;
    AddressPtr destination = ParseUdpRequest(datagram, static_cast<size_t>(received), header);
    if (!destination)
        return;
    {
        QOX::CLock hold(m_owner->m_udpMutex);
        std::memcpy(&m_owner->m_udpClientAddress, &sender, sizeof(sender));
    }
    const int handle = m_owner->m_datagramHandle.load();
    if (handle == -1)
        return;
    handler.SendDatagram(handle, *destination, datagram + header, static_cast<int>(received - header));
}

AddressPtr CConnectionProtocol_SOCKS5::ParseUdpRequest(const unsigned char* datagram, size_t length,
                                                        unsigned int& headerLength)
{
    if (length < MIN_UDP_DATAGRAM)
        return AddressPtr();
    if (datagram[0] != 0 || datagram[1] != 0)
        return AddressPtr();
    const unsigned int block = SocksAddressLength(datagram + 3);
    if (block == 0 || length < 3 + block)
        return AddressPtr();
    headerLength = 3 + block;
    return DecodeSocksAddress(datagram + 3);
}

} // namespace Proxy
} // namespace ZRT
