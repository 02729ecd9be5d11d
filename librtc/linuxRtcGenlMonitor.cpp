#include "linuxRtcGenlMonitorInternal.h"

#include "linuxRtcNotifyInternal.h"
#include "orvaneGateInternal.h"
#include "orvaneLibrtcLog.h"
#include "orvaneRtcLibnlInternal.h"
#include "orvaneRtcRoute.h"
#include "orvaneScope.h"

#include <atomic>
#include <errno.h>
#include <iterator>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <netlink/attr.h>
#include <netlink/genl/ctrl.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>

static constexpr int CALLBACK_MAX = 16;
static constexpr uint32_t EPOLL_ERROR_MASK = EPOLLERR | EPOLLHUP;

/* Bursts of events wait in the receive buffer while callbacks run; what is sent is small. */
static constexpr int RECEIVE_BUFFER_SIZE = 0x1E00000;
static constexpr int SEND_BUFFER_SIZE = 0x100000;
static constexpr size_t MESSAGE_BUFFER_SIZE = 0x1E00000;
static constexpr size_t DUMP_REQUEST_SIZE = 1024;

static constexpr unsigned ABSENT_CHECK_SECONDS = 3;
static constexpr unsigned HEALTHY_CHECK_SECONDS = 5 * ABSENT_CHECK_SECONDS;
static constexpr unsigned REBUILD_SECONDS = 10;
static constexpr unsigned RECEIVE_PAUSE_SECONDS = 1;
static constexpr useconds_t START_LOOK_MICROSECONDS = 10000;
static constexpr int START_LOOKS = 100;
static constexpr const char *CHECK_PROMPT = "ovcon";

/* The highest attributes that are looked for. */
static constexpr int LINK_ATTRIBUTE_MAX = 37;
static constexpr int BRIDGE_PORT_ATTRIBUTE_MAX = 11;

static constexpr MISSING_DESTINATION LIVE_MISSING_DESTINATION = {"0.0.0.0", "0.0.0.0"};

enum _OV_NL_TYPE { OV_NL_ROUTE = 0, OV_NL_CON = 1, OV_NL_CHECK = 2 };

/* How the sockets of the three types differ. */
struct NETLINK_KIND {
    int Protocol;
    int Groups; /* joined as a mask */
    const char *Family;
    const char *Group; /* joined by name, in Family */
    nl_recvmsg_msg_cb_t Parse;
};

static constexpr NETLINK_KIND NETLINK_KINDS[] = {
    {NETLINK_ROUTE, RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE, nullptr, nullptr,
     _RTCMonitorParseNlMsg},
    {NETLINK_GENERIC, 0, OV_CON_FAMILY_NAME, OV_CON_GROUP_NAME, _RTCMonitorParseGenlMsg},
    {NETLINK_GENERIC, 0, nullptr, nullptr, nullptr},
};

struct OV_RTC_MONITOR_SOCK {
    struct nl_sock *Sock; /* null: the family is absent */
    int32_t GroupId;
};

struct _OV_RTC_MONITOR {
    NotifyCallback callback; /* null: the slot is free */
};

static void _ForgetMonitor();

/* Makes starts and stops take turns. Taken before the others. */
static constinit FORK_MUTEX s_ControlLock(FORK_RANK_MONITOR_CONTROL, HELD_FOR_LONG);

/* Held by the monitor thread and by the check thread whenever they are not in their waits, so
 * during callbacks, and by the stop while it takes everything away. Guards what follows. */
static constinit FORK_MUTEX s_WorkLock(FORK_RANK_MONITOR_WORK, HELD_FOR_LONG, _ForgetMonitor);
static int gs_EpollFd = -1;       /* opened and closed under s_SendLock, too */
static struct nl_sock *gs_NlSock; /* the routing socket; null: to be made (again) */
static OV_RTC_MONITOR_SOCK gs_GenlSock;
static struct nl_sock *s_CheckSock;    /* made once, for all starts */
static struct nl_sock *s_LostSocks[8]; /* the last ones whose descriptor somebody closed */
static size_t s_LostCount;
static bool s_IsRouteSockLost;  /* so the check thread has to make gs_NlSock */
static unsigned s_FailureCount; /* of receiving, one after the other */
static bool s_IsErrorAnswer;    /* what failed was a request: the socket received that */
static pthread_t gs_MonitorThreadId;
static pthread_t gs_CheckThreadId; /* 0: none. A thread that is in neither has been stopped. */

/* Set by the monitor thread when it listens, or cannot: what changes after a start is told. */
static bool s_HasBegun;
static constinit FORK_CONDITION s_Begun;

/* The threads in their waits, which a stop sees out before it closes what they wait on. */
static constinit VISITORS s_Waiters;

/* Held in addition to change gs_NlSock, and alone to send on it. No line is logged under it. */
static constinit FORK_MUTEX s_SendLock(FORK_RANK_MONITOR_SOCKETS, HELD_FOR_A_MOMENT);

/* 1 while the monitor runs. Written by start and stop. */
static std::atomic<int> gs_MonitorEnable;

/* What a start's first callback is told of all links: whether it is still to come, and whether the
 * links are still to be asked for. */
static std::atomic<bool> s_IsFirstCallback;
static std::atomic<bool> s_AreLinksWanted;

/* The callback table; the lock is held for reading while callbacks run. */
static constinit FORK_RWLOCK gs_MonitorListRWLock(FORK_RANK_MONITOR_CALLBACKS, nullptr);
static _OV_RTC_MONITOR gs_MonitorList[CALLBACK_MAX];

/* This thread is inside a callback, and would wait for itself in start, stop and registration. */
static thread_local bool s_IsDelivering;

static void _LeaveWait(void *Ticket)
{
    s_Waiters.Leave(*static_cast<unsigned *>(Ticket));
}

/* Lets go of the work for the time of a blocking wait, and tells what that returned (errno is
 * kept). The one place where a stop ends a thread: a cancelled one leaves by the cleanup alone. */
template <typename WAIT>
static int _Wait(WAIT Blocking)
{
    int Result;
    int Error;

    unsigned Ticket = s_Waiters.Enter();
    s_WorkLock.Unlock();
    pthread_cleanup_push(_LeaveWait, &Ticket);
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    Result = Blocking();
    Error = errno;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    pthread_cleanup_pop(1);
    s_WorkLock.Lock();
    errno = Error;
    return Result;
}

/* ---- Events of the routing socket ---- */

void _RTCMonitorNotify(OV_RTC_MONITOR_NOTIFY *NotifyInfo)
{
    gs_MonitorListRWLock.LockForReading();
    if (gs_MonitorEnable > 0) { /* a stop has not begun yet: it waits for this event */
        s_IsDelivering = true;
        for (const _OV_RTC_MONITOR &Slot : gs_MonitorList) {
            if (Slot.callback != nullptr) {
                Slot.callback(NotifyInfo);
            }
        }
        s_IsDelivering = false;
    }
    gs_MonitorListRWLock.Unlock();
}

/* false: nothing is to be delivered. */
static bool _ReadBridgePort(struct nlattr *Attribute, OV_KERNEL_LINK_NOTIFY *Link)
{
    struct nlattr *PortAttributes[BRIDGE_PORT_ATTRIBUTE_MAX + 1];

    Link->Type = OV_NETIO_NOTIFY_TYPE_STPSTATE;
    if (Attribute == nullptr) {
        return true;
    }
    if (nla_parse_nested(PortAttributes, BRIDGE_PORT_ATTRIBUTE_MAX, Attribute, nullptr) < 0) {
        OV_LOG_ERROR("Failed to nlmsg_parse_nested");
        return false;
    }
    struct nlattr *State = PortAttributes[IFLA_BRPORT_STATE];
    if (State != nullptr) {
        if (!_OV_RTCAttributeHolds("bridge port attribute", State, sizeof(uint8_t))) {
            return false;
        }
        Link->StpState = nla_get_u8(State);
    }
    return true;
}

static bool _ReadMtu(struct nlattr *Attribute, OV_KERNEL_LINK_NOTIFY *Link)
{
    Link->Type = OV_NETIO_NOTIFY_TYPE_IFMTU;
    if (Attribute != nullptr) {
        if (!_OV_RTCAttributeHolds("link attribute", Attribute, sizeof(uint32_t))) {
            return false;
        }
        Link->Mtu = static_cast<uint16_t>(nla_get_u32(Attribute)); /* the record has no more */
    }
    return true;
}

static void _RTCMonitorParseLinkMsg(struct nlmsghdr *Header)
{
    struct nlattr *Attributes[LINK_ATTRIBUTE_MAX + 1];
    OV_RTC_MONITOR_NOTIFY Notify;
    OV_KERNEL_LINK_NOTIFY &Link = Notify.LinkNotify;

    if (nlmsg_parse(Header, sizeof(struct ifinfomsg), Attributes, LINK_ATTRIBUTE_MAX, nullptr) <
        0) {
        OV_LOG_ERROR("Failed to nlmsg_parse");
        return;
    }
    memset(&Notify, 0, sizeof(Notify));
    Notify.Type = MONITOR_LINK;
    if (Attributes[IFLA_IFNAME] != nullptr) {
        nla_strlcpy(Link.IfName, Attributes[IFLA_IFNAME], sizeof(Link.IfName));
    }
    if (static_cast<const struct ifinfomsg *>(nlmsg_data(Header))->ifi_family == AF_BRIDGE) {
        if (!_ReadBridgePort(Attributes[IFLA_PROTINFO], &Link)) {
            return;
        }
        OV_LOG_DEBUG("recv brport notify(Type: %d IfName: %s StpState %u", Link.Type, Link.IfName,
                     Link.StpState);
    } else {
        if (!_ReadMtu(Attributes[IFLA_MTU], &Link)) {
            return;
        }
        OV_LOG_DEBUG("recv brport notify(Type: %d IfName: %s Mtu %u", Link.Type, Link.IfName,
                     Link.Mtu);
    }
    _RTCMonitorNotify(&Notify);
}

static void _RTCMonitorParseRouteMsg(struct nlmsghdr *Header)
{
    const int Socket = gs_NlSock != nullptr ? nl_socket_get_fd(gs_NlSock) : -1;
    OV_RTC_MONITOR_NOTIFY Notify;

    if (_OV_RTCRouteNotifyBuild(Header, LIVE_MISSING_DESTINATION, Socket, &Notify)) {
        _RTCMonitorNotify(&Notify);
    }
}

int _RTCMonitorParseNlMsg(struct nl_msg *Message, void *)
{
    struct nlmsghdr *Header = nlmsg_hdr(Message);

    switch (Header->nlmsg_type) {
    case NLMSG_ERROR:
        OV_LOG_ERROR("csnnl: type error");
        return -1;
    case NLMSG_DONE:
    case RTM_NEWADDR: /* its group is joined all the same */
    case RTM_DELADDR:
        break;
    case RTM_NEWLINK:
    case RTM_DELLINK:
        _RTCMonitorParseLinkMsg(Header);
        break;
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
        _RTCMonitorParseRouteMsg(Header);
        break;
    default:
        OV_LOG_ERROR("OV_Monitor: unknown type %d", Header->nlmsg_type);
        break;
    }
    return NL_OK;
}

/* ---- The sockets; all of it under s_WorkLock ---- */

static int _RTCMonitorCreateEpoll()
{
    int Error;
    {
        const MUTEX_SCOPE Open(s_SendLock);
        gs_EpollFd = epoll_create1(EPOLL_CLOEXEC);
        Error = errno;
    }
    if (gs_EpollFd < 0) {
        errno = Error;
        perror("epoll_create");
        OV_LOG_ERROR("epoll_create1 failed: %s", strerror(Error));
    }
    return gs_EpollFd;
}

/* SO_RCVBUF is cut to net.core.rmem_max without a word; with the right to it, it is forced. */
static void _SetBufferSizes(struct nl_sock *Sock)
{
    const int Fd = nl_socket_get_fd(Sock);
    int Size = 0;
    socklen_t Length = sizeof(Size);

    nl_socket_set_buffer_size(Sock, RECEIVE_BUFFER_SIZE, SEND_BUFFER_SIZE);
    setsockopt(Fd, SOL_SOCKET, SO_RCVBUFFORCE, &RECEIVE_BUFFER_SIZE, sizeof(RECEIVE_BUFFER_SIZE));
    getsockopt(Fd, SOL_SOCKET, SO_RCVBUF, &Size, &Length);
    if (Size / 2 < RECEIVE_BUFFER_SIZE) { /* told doubled */
        OV_LOG_WARN("netlink receive buffer: %d of %d bytes", Size / 2, RECEIVE_BUFFER_SIZE);
    }
}

/* Joins the group of the socket's family: its id, or negative. */
static int _JoinGroup(struct nl_sock *Sock, const NETLINK_KIND &Kind)
{
    const int GroupId = genl_ctrl_resolve_grp(Sock, Kind.Family, Kind.Group);

    if (GroupId < 0) {
        OV_LOG_ERROR("genl_ctrl_resolve_grp failed(err: %d)", GroupId);
        return GroupId;
    }
    const int NlError = nl_socket_add_memberships(Sock, GroupId, 0);
    if (NlError != 0) {
        OV_LOG_ERROR("nl_socket_add_membershipsfailed(err: %d)", NlError);
        return -1;
    }
    return GroupId;
}

/* libnl's callback for an error that answers a request, such as -EBUSY for a dump that is asked for
 * while another one runs. The receive then ends with that error, as it would without a callback. */
static int _NoteErrorAnswer(struct sockaddr_nl *, struct nlmsgerr *, void *)
{
    s_IsErrorAnswer = true;
    return NL_STOP;
}

static struct nl_sock *_RTCMonitorCreateNetlink(_OV_NL_TYPE GenlNetlink)
{
    NL_SOCK_SCOPE Sock(nl_socket_alloc());

    if (!Sock) {
        OV_LOG_ERROR("nl_socket_allow failed");
        return nullptr;
    }
    nl_socket_set_msg_buf_size(Sock.get(), MESSAGE_BUFFER_SIZE);
    if (GenlNetlink > OV_NL_CHECK) {
        OV_LOG_ERROR("not supoort %d type", GenlNetlink);
        return nullptr;
    }
    const NETLINK_KIND &Kind = NETLINK_KINDS[GenlNetlink];
    nl_join_groups(Sock.get(), Kind.Groups);
    nl_socket_disable_seq_check(Sock.get()); /* what is multicast answers no request */
    int NlError = nl_socket_modify_cb(Sock.get(), NL_CB_VALID, NL_CB_CUSTOM, Kind.Parse, nullptr);
    if (NlError != 0) {
        OV_LOG_ERROR("nl_socket_modify_cb failed(err: %d)", NlError);
        return nullptr;
    }
    nl_socket_modify_err_cb(Sock.get(), NL_CB_CUSTOM, _NoteErrorAnswer, nullptr);
    NlError = _OV_RTCLibNlConnect(Sock.get(), Kind.Protocol, OWNED_BY_MODULE);
    if (NlError != 0) {
        OV_LOG_ERROR("genl_connect failed(err: %d)", NlError);
        return nullptr;
    }
    nl_socket_set_nonblocking(Sock.get());
    _SetBufferSizes(Sock.get());
    if (Kind.Family != nullptr) {
        const int GroupId = _JoinGroup(Sock.get(), Kind);
        if (GroupId < 0) {
            return nullptr;
        }
        gs_GenlSock.GroupId = GroupId;
        OV_LOG_WARN("ovcon: add groupid(%d) to members", GroupId);
    }
    return Sock.release();
}

static int _RTCMonitorEpollAdd(int EpollFd, struct nl_sock *Sock, int Add)
{
    const int Fd = nl_socket_get_fd(Sock);
    struct epoll_event Event = {};

    OV_LOG_WARN("%s %s socket(%d) to epoll(%d)", Add != 0 ? "add" : "remove",
                gs_NlSock == nullptr || gs_NlSock == Sock ? "netlink-route" : "netlink-genl", Fd,
                EpollFd);
    Event.events = EPOLLIN;
    Event.data.fd = Fd;
    return epoll_ctl(EpollFd, Add != 0 ? EPOLL_CTL_ADD : EPOLL_CTL_DEL, Fd, &Event);
}

static struct nl_sock *_RTCMonitorCreateNetlink2Epoll(_OV_NL_TYPE GenlNetlink)
{
    NL_SOCK_SCOPE Sock(_RTCMonitorCreateNetlink(GenlNetlink));

    if (!Sock) {
        OV_LOG_ERROR("_RTCMonitorCreateGenlNetlink failed(%d)", GenlNetlink);
        return nullptr;
    }
    if (_RTCMonitorEpollAdd(gs_EpollFd, Sock.get(), 1) == -1) {
        OV_LOG_ERROR("_RTCMonitorEpollAdd failed(%d)", GenlNetlink);
        return nullptr;
    }
    return Sock.release();
}

static void _SetRouteSock(struct nl_sock *Sock)
{
    const MUTEX_SCOPE Send(s_SendLock);

    gs_NlSock = Sock;
}

/* Whether the descriptor is still the socket's, and not closed, or somebody else's by now. */
static bool _IsOpen(const struct nl_sock *Sock)
{
    struct sockaddr_nl Local = {};
    socklen_t Length = sizeof(Local);

    return getsockname(nl_socket_get_fd(Sock), reinterpret_cast<struct sockaddr *>(&Local),
                       &Length) == 0 &&
           Local.nl_family == AF_NETLINK && Local.nl_pid == nl_socket_get_local_port(Sock);
}

/* An object whose descriptor somebody closed is given up and not freed: that would close what may
 * be somebody else's file. */
static bool _GiveUpIfLost(struct nl_sock *Sock)
{
    if (_IsOpen(Sock)) {
        return false;
    }
    OV_LOG_ERROR("socket(%d) was closed under the monitor", nl_socket_get_fd(Sock));
    _OV_RTCLibNlSockLost(Sock);
    s_LostSocks[s_LostCount++ % std::size(s_LostSocks)] = Sock;
    return true;
}

static void _FreeSock(struct nl_sock *Sock)
{
    if (gs_EpollFd != -1) {
        _RTCMonitorEpollAdd(gs_EpollFd, Sock, 0);
    }
    if (!_GiveUpIfLost(Sock)) {
        OV_RTCLibNlSockFree(Sock);
    }
}

static void _FreeGenlSock()
{
    _FreeSock(gs_GenlSock.Sock);
    gs_GenlSock = {};
}

static void _RTCMonitorFreeNL()
{
    struct nl_sock *RouteSock = gs_NlSock;

    if (RouteSock != nullptr) {
        _SetRouteSock(nullptr); /* nobody sends on it any more */
        _FreeSock(RouteSock);
    }
    if (gs_GenlSock.Sock != nullptr) {
        _FreeGenlSock();
    }
}

static void _CloseEpoll()
{
    const MUTEX_SCOPE Open(s_SendLock);

    if (gs_EpollFd != -1) {
        close(gs_EpollFd);
        gs_EpollFd = -1;
    }
}

/* On the routing socket, or false where there is none. The payload is zero, so that the family byte
 * reads AF_UNSPEC. */
static bool _SendDumpRequest(int Type)
{
    static constexpr char Payload[DUMP_REQUEST_SIZE] = {};
    const CANCEL_SCOPE Whole;
    int NlError = 0;
    {
        const MUTEX_SCOPE Send(s_SendLock);

        if (gs_NlSock == nullptr || !_IsOpen(gs_NlSock)) {
            return false;
        }
        NlError = nl_send_simple(gs_NlSock, Type, NLM_F_REQUEST | NLM_F_DUMP,
                                 const_cast<char *>(Payload), sizeof(Payload));
    }
    if (NlError < 0) {
        OV_LOG_ERROR("nl_send_simple failed(err: %d)", NlError);
    }
    return true;
}

/* A start's one dump of the links, whose answers are delivered like changes: it is asked for when
 * there is somebody to tell. */
static void _AskForLinks()
{
    if (s_AreLinksWanted.exchange(false) && !_SendDumpRequest(RTM_GETLINK)) {
        s_AreLinksWanted = true; /* by who makes the socket */
    }
}

void OV_RTCMonitorSendAddrRequest(void)
{
    _SendDumpRequest(RTM_GETADDR);
}

/* ---- The monitor thread ---- */

static bool _IsThread(pthread_t Thread)
{
    return pthread_equal(pthread_self(), Thread) != 0;
}

static void _Sleep(unsigned Seconds)
{
    _Wait([=] { return static_cast<int>(sleep(Seconds)); });
}

static bool _StartListening()
{
    if (_RTCMonitorCreateEpoll() < 0) {
        perror("_RTCMonitorCreateEpoll failed\n");
        return false;
    }
    _SetRouteSock(_RTCMonitorCreateNetlink2Epoll(OV_NL_ROUTE));
    if (gs_NlSock == nullptr) {
        perror("_RTCMonitorCreateNetlink2Epoll for NETLINK_ROUTE failed\n");
        return false;
    }
    return true;
}

/* Sees to it that there is a routing socket; no links are asked for a second time. */
static bool _RebuildRouteSock()
{
    if (gs_EpollFd < 0) {
        _RTCMonitorCreateEpoll();
    }
    if (gs_EpollFd < 0 || gs_NlSock != nullptr) {
        return gs_EpollFd >= 0;
    }
    _SetRouteSock(_RTCMonitorCreateNetlink2Epoll(OV_NL_ROUTE));
    if (gs_NlSock == nullptr) {
        OV_LOG_ERROR("_RTCMonitorCreateNetlink2Epoll for NETLINK_ROUTE failed");
        return false;
    }
    OV_LOG_WARN("csnnl: re-add netlink socket to epoll");
    _AskForLinks();
    return true;
}

static void _Receive(int Fd)
{
    int NlError = 0;

    s_IsErrorAnswer = false;
    if (gs_NlSock != nullptr && Fd == nl_socket_get_fd(gs_NlSock)) {
        NlError = nl_recvmsgs_default(gs_NlSock);
        if (NlError < 0) {
            OV_LOG_ERROR("nl_route nl_recvmsgs failed(rc: %d)", NlError);
        }
    }
    if (gs_GenlSock.Sock != nullptr && Fd == nl_socket_get_fd(gs_GenlSock.Sock)) {
        NlError = nl_recvmsgs_default(gs_GenlSock.Sock);
        if (NlError < 0) {
            OV_LOG_ERROR("nl_ovconn nl_recvmsgs failed(rc: %d)", NlError);
        }
    }
    s_FailureCount = NlError < 0 && !s_IsErrorAnswer ? s_FailureCount + 1 : 0;
    if (s_FailureCount > 1) { /* it may last, as want of memory does: no line a microsecond */
        _Sleep(RECEIVE_PAUSE_SECONDS);
    }
}

static void _HandleEvent(const struct epoll_event &Event)
{
    if ((Event.events & EPOLL_ERROR_MASK) == 0 && (Event.events & EPOLLIN) != 0) {
        _Receive(Event.data.fd);
        return;
    }
    OV_LOG_ERROR("csnnl: error occured(events: 0x%X, fd: %d)!", Event.events, Event.data.fd);
    if ((Event.events & EPOLLIN) != 0) {
        _RTCMonitorFreeNL();
        return;
    }
    /* Nothing to read will take the error away, and it would be reported for ever: a look does. */
    char Byte;
    recv(Event.data.fd, &Byte, sizeof(Byte), MSG_PEEK | MSG_DONTWAIT);
}

static void _WaitForEvent()
{
    const int EpollFd = gs_EpollFd;
    struct epoll_event Event = {};

    const int Count = _Wait([&] { return epoll_wait(EpollFd, &Event, 1, -1); });
    if (!_IsThread(gs_MonitorThreadId)) {
        return; /* stopped: what there is now belongs to another start */
    }
    if (Count == 1) {
        _HandleEvent(Event);
    } else if (Count < 0 && errno != EINTR) {
        OV_LOG_ERROR("epoll_wait on %d failed: %s", gs_EpollFd, strerror(errno));
        gs_EpollFd = -1; /* closed by somebody: not ours to close any more */
        _RTCMonitorFreeNL();
    }
}

static void *_RTCMonitorThread(void *)
{
    g_IsLibraryThread = true;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); /* but in _Wait */
    const MUTEX_SCOPE Work(s_WorkLock);

    const bool IsListening = _StartListening();
    s_HasBegun = true;
    s_Begun.WakeAll();
    if (IsListening) {
        while (_IsThread(gs_MonitorThreadId) && gs_MonitorEnable > 0) {
            if (_RebuildRouteSock()) {
                _WaitForEvent();
            } else {
                _Sleep(REBUILD_SECONDS);
            }
        }
    }
    if (_IsThread(gs_MonitorThreadId)) {
        _CloseEpoll();
        _RTCMonitorFreeNL();
    }
    return nullptr;
}

/* ---- The check thread ---- */

/* A socket that was closed is gone from epoll without an event: the monitor thread would wait for
 * ever. */
static void _ReplaceLostSocks()
{
    if (gs_NlSock != nullptr && _GiveUpIfLost(gs_NlSock)) {
        _SetRouteSock(nullptr);
        s_IsRouteSockLost = true;
    }
    if (s_IsRouteSockLost) {
        s_IsRouteSockLost = !_RebuildRouteSock();
    }
    if (gs_GenlSock.Sock != nullptr && _GiveUpIfLost(gs_GenlSock.Sock)) {
        gs_GenlSock = {};
    }
    if (s_CheckSock != nullptr && _GiveUpIfLost(s_CheckSock)) {
        s_CheckSock = nullptr;
    }
}

/* The family may be another one with the same group by now, which does not have us as a member;
 * when it is the same one, joining again changes nothing. */
static void _RejoinGroup()
{
    const int NlError = nl_socket_add_membership(gs_GenlSock.Sock, gs_GenlSock.GroupId);

    if (NlError < 0) {
        OV_LOG_ERROR("nl_socket_add_membership failed(err: %d)", NlError);
    }
}

/* Returns the seconds until the next check. */
static unsigned _RTCMonitorCheckOVConSock(_OV_NL_TYPE GenlNetlink, struct nl_sock *CheckSock)
{
    if (GenlNetlink != OV_NL_CON) {
        return ABSENT_CHECK_SECONDS;
    }
    const int GroupId = genl_ctrl_resolve_grp(CheckSock, OV_CON_FAMILY_NAME, OV_CON_GROUP_NAME);
    if (GroupId < 0) {
        if (gs_GenlSock.Sock != nullptr) {
            OV_LOG_WARN("%s: Genl socket check error", CHECK_PROMPT);
            _FreeGenlSock();
            OV_LOG_WARN("%s: Del Genl socket from epoll", CHECK_PROMPT);
        }
        return ABSENT_CHECK_SECONDS;
    }
    if (gs_GenlSock.Sock != nullptr) {
        if (gs_GenlSock.GroupId == GroupId) {
            _RejoinGroup();
            return HEALTHY_CHECK_SECONDS;
        }
        OV_LOG_WARN("%s: Genl socket groupid changed(pre: %d, cur: %d) ok", CHECK_PROMPT,
                    gs_GenlSock.GroupId, GroupId);
        _FreeGenlSock();
    }
    OV_LOG_WARN("%s: Genl socket check ok", CHECK_PROMPT);
    gs_GenlSock.Sock = _RTCMonitorCreateNetlink2Epoll(OV_NL_CON);
    if (gs_GenlSock.Sock == nullptr) {
        gs_GenlSock = {};
        OV_LOG_ERROR("_RTCMonitorCreateNetlink2Epoll for NETLINK_GENL failed");
        return ABSENT_CHECK_SECONDS;
    }
    OV_LOG_WARN("%s: Add Genl socket to epoll", CHECK_PROMPT);
    return HEALTHY_CHECK_SECONDS;
}

static unsigned _Check(unsigned Interval)
{
    if (gs_EpollFd < 0) {
        return Interval;
    }
    _ReplaceLostSocks();
    if (s_CheckSock == nullptr) {
        s_CheckSock = _RTCMonitorCreateNetlink(OV_NL_CHECK);
    }
    return s_CheckSock != nullptr ? _RTCMonitorCheckOVConSock(OV_NL_CON, s_CheckSock) : Interval;
}

/* The monitor thread may have dropped the family's socket: then the next check is due at once. */
static void _WaitForCheck(unsigned Interval)
{
    do {
        _Sleep(ABSENT_CHECK_SECONDS);
        Interval -= ABSENT_CHECK_SECONDS;
    } while (Interval > 0 && gs_GenlSock.Sock != nullptr && _IsThread(gs_CheckThreadId));
}

static void *_RTCMonitorCheckThread(void *)
{
    unsigned Interval = ABSENT_CHECK_SECONDS;

    g_IsLibraryThread = true;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); /* but in _Wait */
    const MUTEX_SCOPE Work(s_WorkLock);
    /* Both threads begin at once; the family is not to wait for the second check. */
    for (int Look = 0; gs_EpollFd < 0 && Look < START_LOOKS && _IsThread(gs_CheckThreadId);
         Look++) {
        _Wait([] { return usleep(START_LOOK_MICROSECONDS); });
    }
    while (_IsThread(gs_CheckThreadId)) {
        Interval = _Check(Interval);
        _WaitForCheck(Interval);
    }
    return nullptr;
}

/* ---- Start, stop, callbacks ---- */

/* For what waits for the delivery to end, and so for ever when a callback asks for it. */
static bool _RefuseInCallback(const char *Operation)
{
    if (s_IsDelivering) {
        OV_LOG_ERROR("%s: not from a callback", Operation);
    }
    return s_IsDelivering;
}

/* The stop does not wait for the thread itself; it is joined by nobody. */
static void _CancelThread(pthread_t *Thread)
{
    if (*Thread != 0) {
        pthread_cancel(*Thread);
        pthread_detach(*Thread);
        *Thread = 0;
    }
}

static void _StartThread(pthread_t *Thread, void *(*Body)(void *))
{
    const SIGNAL_SCOPE NoSignals; /* the thread's, too: they are for the program's own threads */
    const int Error = pthread_create(Thread, nullptr, Body, nullptr);

    if (Error != 0) {
        *Thread = 0;
        OV_LOG_ERROR("pthread_create failed: %s", strerror(Error));
    }
}

/* A forked child has no monitor, and may start one: neither the threads, nor the callbacks, nor the
 * sockets, which are closed where all of the process's are. The libnl objects stay: another thread
 * may have been changing them. A child that was forked in a callback does not return from it. */
static void _ForgetMonitor()
{
    gs_MonitorEnable = 0;
    gs_MonitorThreadId = gs_CheckThreadId = 0;
    gs_NlSock = s_CheckSock = nullptr;
    gs_GenlSock = {};
    s_IsRouteSockLost = false;
    _CloseEpoll();
    for (_OV_RTC_MONITOR &Slot : gs_MonitorList) {
        Slot.callback = nullptr;
    }
    s_IsDelivering = false;
    s_WorkLock.UnlockWholly();
}

static OV_ERR_T _StartMonitor()
{
    const CANCEL_SCOPE Whole;
    const MUTEX_SCOPE Control(s_ControlLock);

    if (gs_MonitorEnable >= 1) {
        return -EEXIST;
    }
    gs_MonitorEnable = 1;
    const OV_ERR_T Error = OV_RTCRouteInit();
    if (Error < 0) { /* the stop is still due, and the next start refused until then */
        OV_LOG_ERROR("OV_RTCRouteInit failed(ret = %d).", Error);
        return Error;
    }
    const MUTEX_SCOPE Work(s_WorkLock); /* the threads wait until both have their places */
    s_HasBegun = false;
    s_IsFirstCallback = true;
    s_AreLinksWanted = false;
    _StartThread(&gs_MonitorThreadId, _RTCMonitorThread);
    _StartThread(&gs_CheckThreadId, _RTCMonitorCheckThread);
    while (gs_MonitorThreadId != 0 && !s_HasBegun) {
        s_Begun.Wait(s_WorkLock);
    }
    return Error;
}

int OV_RTCGenlMonitorInit(void)
{
    /* Within a callback it runs, or is being stopped by who waits for this callback. */
    const OV_ERR_T Error = s_IsDelivering ? -EEXIST : _StartMonitor();

    if (Error == -EEXIST) {
        OV_LOG_ERROR("RTC monitor thread init already");
    }
    return Error;
}

int OV_RTCGenlMonitorUninit(void)
{
    if (_RefuseInCallback(__func__)) {
        return -EDEADLK;
    }
    const CANCEL_SCOPE Whole;
    const MUTEX_SCOPE Control(s_ControlLock);
    if (gs_MonitorEnable == 0) {
        return 0;
    }
    gs_MonitorEnable = 0; /* ends the delivery of what was received already */
    {
        const MUTEX_SCOPE Work(s_WorkLock);
        _CancelThread(&gs_CheckThreadId);
        _CancelThread(&gs_MonitorThreadId);
        s_Waiters.WaitUntilEmpty();
        _CloseEpoll();
        _RTCMonitorFreeNL();
        s_IsRouteSockLost = false;
    }
    OV_RTCRouteRelease();
    const WRITE_LOCK_SCOPE List(gs_MonitorListRWLock);
    for (_OV_RTC_MONITOR &Slot : gs_MonitorList) {
        Slot.callback = nullptr;
    }
    return 0;
}

int OV_RTCGenlMonitorRegCallback(NotifyCallback Callback)
{
    int RegId = -ENOENT;

    if (_RefuseInCallback(__func__)) {
        return -EDEADLK;
    }
    const CANCEL_SCOPE Whole;
    {
        const WRITE_LOCK_SCOPE List(gs_MonitorListRWLock);
        if (gs_MonitorEnable == 0) { /* also when a stop has just emptied the table */
            return -1;
        }
        for (int Id = 0; Id < CALLBACK_MAX && RegId < 0; Id++) {
            if (gs_MonitorList[Id].callback == nullptr) {
                gs_MonitorList[Id].callback = Callback;
                RegId = Id;
            }
        }
        if (RegId >= 0 && s_IsFirstCallback.exchange(false)) {
            s_AreLinksWanted = true;
        }
    }
    _AskForLinks();
    return RegId;
}

int OV_RTCGenlMonitorUnregCallback(int RegId)
{
    if (RegId < 0 || RegId >= CALLBACK_MAX) {
        return -1;
    }
    if (gs_MonitorEnable == 0) {
        return -ENOENT;
    }
    if (_RefuseInCallback(__func__)) {
        return -EDEADLK;
    }
    const CANCEL_SCOPE Whole;
    const WRITE_LOCK_SCOPE List(gs_MonitorListRWLock);
    gs_MonitorList[RegId].callback = nullptr;
    return 0;
}
