/*
 * services: the dispatch and the configuration service of an appliance, for machines that have
 * none. Each exchange is a line of output.
 *
 *   services [dispatch | configuration]
 *
 * Without a word it is both. What they do:
 *
 * - dispatch (127.0.0.1:54321): every request is answered with the code 0 and its own payload.
 * - dispatch notifications (54322): what an agent pushes is shown; what the agents are to be told
 *   is read from standard input, a line each: "up INTERFACE" or "down INTERFACE", the state of an
 *   interface of the data path; "reachable POP" or "unreachable POP", that of a PoP by its number.
 *   A listener that does not read what it is told is disconnected.
 * - configuration (55435): a request with a payload sets the item of its module and operation, one
 *   without reads it (-ENOENT when it was never set). The items last as long as the process.
 *
 * It runs until a signal ends it, also when standard input has ended.
 */
#include "linuxRtcSockMonitor.h"
#include "loopbackServer.h"
#include "orvaneDispatch.h"
#include "orvaneImc.h"

#include <algorithm>
#include <errno.h>
#include <map>
#include <optional>
#include <set>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

static constexpr uint16_t CONFIG_PORT = 54321;
static constexpr uint16_t NOTIFY_PORT = 54322;
static constexpr uint16_t ITEM_PORT = 55435;
static constexpr size_t PAYLOAD_MAX = 1 << 20; /* who announces more is out of step */
static constexpr size_t SHOWN_MAX = 60;

static std::mutex s_Lock;
static std::set<int> s_Listeners; /* under s_Lock: notification connections */
static std::mutex s_ItemLock;
static std::map<std::pair<unsigned, unsigned>, std::string> s_Items; /* under s_ItemLock */

/* What somebody sent, as text of bounded length. */
static std::string Shown(const std::string &Payload)
{
    std::string Text = Payload.substr(0, SHOWN_MAX);

    std::replace_if(
        Text.begin(), Text.end(), [](char Letter) { return Letter < ' ' || Letter > '~'; }, '.');
    return "\"" + Text + (Payload.size() > SHOWN_MAX ? "\"..." : "\"");
}

/* False when the peer is gone. */
template <typename HEADER>
static bool ReceiveHeader(int Socket, HEADER *Header)
{
    const std::string Bytes = ReceiveBytes(Socket, sizeof(*Header));

    if (Bytes.size() != sizeof(*Header)) {
        return false;
    }
    memcpy(Header, Bytes.data(), sizeof(*Header));
    return true;
}

/* Size is what the header says; false when the peer is gone, or not to be believed. */
static bool ReceivePayload(int Socket, uint64_t Size, std::string *Payload)
{
    if (Size > PAYLOAD_MAX) {
        printf("services: a message of %llu bytes is refused\n",
               static_cast<unsigned long long>(Size));
        return false;
    }
    *Payload = ReceiveBytes(Socket, Size);
    return Payload->size() == Size;
}

static bool ReceiveDispatch(int Socket, OV_DISPATCH_HDR *Header, std::string *Payload)
{
    return ReceiveHeader(Socket, Header) && Header->Length >= sizeof(*Header) &&
           ReceivePayload(Socket, Header->Length - sizeof(*Header), Payload);
}

static std::string DispatchMessage(uint8_t Module, uint16_t Type, const std::string &Payload)
{
    const OV_DISPATCH_HDR Header = {0, Module, Type,
                                    static_cast<uint32_t>(sizeof(Header) + Payload.size())};

    return BytesOf(Header) + Payload;
}

static void ServeRequests(int Socket)
{
    OV_DISPATCH_HDR Header;
    std::string Payload;

    puts("services: dispatch client connected");
    while (ReceiveDispatch(Socket, &Header, &Payload)) {
        printf("services: dispatch request module %u type %u %s: 0\n", Header.Module, Header.Type,
               Shown(Payload).c_str());
        if (!SendBytes(Socket, DispatchMessage(Header.Module, Header.Type,
                                               BytesOf(int32_t{0}) + Payload))) {
            break;
        }
    }
    puts("services: dispatch client gone");
}

static void ServeListener(int Socket)
{
    OV_DISPATCH_HDR Header;
    std::string Payload;
    {
        const std::lock_guard Guard(s_Lock);
        s_Listeners.insert(Socket);
    }

    while (ReceiveDispatch(Socket, &Header, &Payload)) {
        printf("services: pushed by an agent: module %u type %u, %zu bytes\n", Header.Module,
               Header.Type, Payload.size());
    }
    const std::lock_guard Guard(s_Lock);
    s_Listeners.erase(Socket);
}

/* The reply to a request for the item. */
static std::string SetOrRead(const OV_IMC_REQ_HDR &Request, const std::string &Payload)
{
    const std::lock_guard Guard(s_ItemLock);
    const auto Key = std::pair(unsigned{Request.Mod}, unsigned{Request.OpType});
    OV_IMC_REPLY_HDR Reply = {};
    std::string Value;

    if (!Payload.empty()) {
        s_Items[Key] = Payload;
    } else if (s_Items.contains(Key)) {
        Value = s_Items[Key];
    } else {
        Reply.RetCode = -ENOENT;
    }
    Reply.PayloadBytes = Value.size();
    printf("services: item %u/%u %s %s: %d\n", Key.first, Key.second,
           Payload.empty() ? "read" : "set to", Shown(Payload + Value).c_str(), Reply.RetCode);
    return BytesOf(Reply) + Value;
}

static void ServeItems(int Socket)
{
    OV_IMC_REQ_HDR Request;
    std::string Payload;

    puts("services: configuration client connected");
    while (ReceiveHeader(Socket, &Request) &&
           ReceivePayload(Socket, Request.PayloadBytes, &Payload) &&
           SendBytes(Socket, SetOrRead(Request, Payload))) {}
    puts("services: configuration client gone");
}

/* The notification that a line asks for. */
static std::optional<std::string> NotificationOf(const std::string &Event, const char *Object)
{
    if (Event == "up" || Event == "down") {
        OV_NETIO_STATE_NOTIFY Netio = {};
        Netio.Type = OV_NETIO_NOTIFY_TYPE_IFSTATE;
        snprintf(Netio.IfName, sizeof(Netio.IfName), "%s", Object);
        Netio.IfState = Event == "up" ? 0 : 1;
        return DispatchMessage(OV_DISPATCH_MOD_NETIO, OV_DISPATCH_TYPE_NETIO_NOTIFY_IF,
                               BytesOf(Netio));
    }
    if (Event == "reachable" || Event == "unreachable") {
        OV_PEER_HOST_NOTIFY Peer = {};
        Peer.NotifyType = Event == "reachable" ? 1 : 0;
        Peer.PopId = static_cast<uint32_t>(strtoul(Object, nullptr, 10));
        return DispatchMessage(OV_DISPATCH_MOD_OVCONN, OV_DISPATCH_TYPE_PEER_HOST_REACHABLE_STATE,
                               BytesOf(Peer));
    }
    return std::nullopt;
}

/* Whole and without a wait, which would be one for all other listeners, too. */
static bool Tell(int Socket, const std::string &Message)
{
    const ssize_t Sent = send(Socket, Message.data(), Message.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (Sent == static_cast<ssize_t>(Message.size())) {
        return true;
    }
    if (Sent >= 0 || errno == EAGAIN) {
        puts("services: a listener does not read, it is disconnected");
        shutdown(Socket, SHUT_RDWR);
    }
    return false;
}

static void Notify(const char *Line)
{
    char Event[16] = "";
    char Object[16] = "";
    sscanf(Line, "%15s %15s", Event, Object);
    const auto Message = NotificationOf(Event, Object);

    if (!Message) {
        printf("services: up, down, reachable or unreachable, not %s\n", Shown(Event).c_str());
        return;
    }
    const std::lock_guard Guard(s_Lock); /* no listener is closed meanwhile */
    const auto Told = std::count_if(s_Listeners.begin(), s_Listeners.end(),
                                    [&](int Socket) { return Tell(Socket, *Message); });
    printf("services: %s %s told to %zd\n", Event, Object, Told);
}

int main(int argc, char *argv[])
{
    const std::string Which = argc > 1 ? argv[1] : "";
    std::optional<LOOPBACK_SERVER> Requests;
    std::optional<LOOPBACK_SERVER> Listeners;
    std::optional<LOOPBACK_SERVER> Items;
    char Line[128];

    if (argc > 2 || (argc == 2 && Which != "dispatch" && Which != "configuration")) {
        fputs("usage: services [dispatch | configuration]\n", stderr);
        return 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (Which != "configuration") {
        Requests.emplace(CONFIG_PORT, ServeRequests);
        Listeners.emplace(NOTIFY_PORT, ServeListener);
    }
    if (Which != "dispatch") {
        Items.emplace(ITEM_PORT, ServeItems);
    }
    puts("services: ready");
    while (fgets(Line, sizeof(Line), stdin) != nullptr) {
        Notify(Line);
    }
    for (;;) {
        pause();
    }
}
