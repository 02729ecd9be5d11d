#include "linuxRtcGenlFamilyInternal.h"

#include "linuxRtcNotifyInternal.h"
#include "orvaneLibrtcLog.h"
#include "orvaneRtcLibnlInternal.h"
#include "orvaneScope.h"

#include <errno.h>
#include <linux/rtnetlink.h>
#include <netlink/attr.h>
#include <netlink/genl/genl.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>
#include <string.h>

static constexpr int FAMILY_ATTRIBUTE_MAX = __OV_CON_GENL_ATTR_MAX - 1;
static constexpr int CONTROL_ATTRIBUTE_MAX = 9;
static constexpr uint8_t GENL_VERSION = 1;

static constexpr MISSING_DESTINATION DUMP_MISSING_DESTINATION = {"default", "0"};

/* Held from the look-up of the family to the use of what was found. */
static constinit FORK_MUTEX s_FamilyIdLock(FORK_RANK_FAMILY_ID, HELD_FOR_LONG);
static uint32_t g_OV_RTCMonitorPtxFamilyId; /* 0: not found */

/* ---- Events of the family ---- */

static OV_ERR_T _FamilyStateHandle(RECORD Record, NOTIFY_DELIVER Deliver)
{
    OV_RTC_MONITOR_NOTIFY Notify;
    const OV_CON_STATE_NOTIFY &State = Notify.ConnNotify;

    _OV_RTCNotifyInit(&Notify, MONITOR_CONN, Record.first(sizeof(State)));
    OV_LOG_INFO("recv ovconn state notify: id = %u type = %u subtype = %u value = %u reserved = %u "
                "mode = %u sessionid=%u srcip=%u dstip=%u srcport = %u dstport = %u policyid=%u ",
                State.Id, State.Type, State.SubType, State.Value, State.Reserved, State.ConnMode,
                State.SessionId, State.SrcIp.V4, State.DstIp.V4, State.SrcPort, State.DstPort,
                State.PolicyId);
    Deliver(&Notify);
    return 0;
}

static OV_ERR_T _FamilyRateLimitHandle(RECORD Record, NOTIFY_DELIVER Deliver)
{
    OV_RTC_MONITOR_NOTIFY Notify;

    _OV_RTCNotifyInit(&Notify, MONITOR_RATELIMIT, Record.first(sizeof(OV_RATE_LIMIT_STATE_NOTIFY)));
    Deliver(&Notify);
    return 0;
}

struct FAMILY_ATTRIBUTE {
    int Type;
    int Size; /* of the fixed fields */
    RECORD_HANDLER Handle;
    const char *OutOfMemory; /* what is logged then; null: needs none */
};

/* In the order in which the attributes of a message are delivered. */
static constexpr FAMILY_ATTRIBUTE FAMILY_ATTRIBUTES[] = {
    {OV_CON_GENL_ATTR_STATE_NOTIFY, sizeof(OV_CON_STATE_NOTIFY), _FamilyStateHandle, nullptr},
    {OV_CON_GENL_ATTR_FLOW_URL_NOTIFY, sizeof(OV_FLOW_URL_NOTIFY_INFO), _OV_RTCUrlFlowHandle,
     "malloc error"},
    {OV_CON_GENL_ATTR_NETIO_NOTIFY, sizeof(OV_NETIO_STATE_NOTIFY), _OV_RTCNetioHandle, nullptr},
    {OV_CON_GENL_ATTR_DP_REPORT, sizeof(OV_DP_REPORT_HEADER), _OV_RTCReportHandle,
     "Can't apply for memory"},
    {OV_GENL_ATTR_RATELIMIT_STATE_NOTIFY, sizeof(OV_RATE_LIMIT_STATE_NOTIFY),
     _FamilyRateLimitHandle, nullptr},
};

/* false: the attributes behind this one are not to be handled. */
static bool _HandleAttribute(const FAMILY_ATTRIBUTE &Known, const struct nlattr *Attribute)
{
    if (Attribute == nullptr || !_OV_RTCAttributeHolds("family attribute", Attribute, Known.Size)) {
        return true;
    }
    const OV_ERR_T Error = Known.Handle({static_cast<const uint8_t *>(nla_data(Attribute)),
                                         static_cast<size_t>(nla_len(Attribute))},
                                        _RTCMonitorNotify);
    if (Error == -ENOMEM && Known.OutOfMemory != nullptr) {
        OV_LOG_ERROR("%s", Known.OutOfMemory);
    }
    return Error == 0 || Error == -EBADMSG;
}

int _RTCMonitorParseGenlMsg(struct nl_msg *Message, void *)
{
    struct nlmsghdr *Header = nlmsg_hdr(Message);
    struct nlattr *Attributes[FAMILY_ATTRIBUTE_MAX + 1];

    /* An error line for every message, on purpose. */
    OV_LOG_ERROR("nlh->nlmsg_len=%d", static_cast<int>(Header->nlmsg_len));
    if (genlmsg_valid_hdr(Header, 0) != 0 && genlmsg_hdr(Header)->cmd != OV_CON_GENL_OP_MULTICAST) {
        OV_LOG_ERROR("Oops? The message type is not MC_CONN(cmd: %d); ignoring.",
                     genlmsg_hdr(Header)->cmd);
        return NL_OK;
    }
    const int NlError = genlmsg_parse(Header, 0, Attributes, FAMILY_ATTRIBUTE_MAX, nullptr);
    if (NlError != 0) {
        OV_LOG_ERROR("genlmsg_parse(err: %d)", NlError);
        return NL_OK;
    }
    for (const FAMILY_ATTRIBUTE &Known : FAMILY_ATTRIBUTES) {
        if (!_HandleAttribute(Known, Attributes[Known.Type])) {
            break;
        }
    }
    return NL_OK;
}

/* ---- Connection states for the family ---- */

/* libnl's callback for the reply to a look-up; Arg is where the id goes. */
static int _RTCMonitorParseGenlMsgForFamilyId(struct nl_msg *Message, void *Arg)
{
    struct nlattr *Attributes[CONTROL_ATTRIBUTE_MAX + 1];
    const int NlError =
        genlmsg_parse(nlmsg_hdr(Message), 0, Attributes, CONTROL_ATTRIBUTE_MAX, nullptr);

    if (NlError != 0) {
        OV_LOG_ERROR("line: %d genlmsg_parse(err: %d)", __LINE__, NlError);
        return -1;
    }
    if (Attributes[CTRL_ATTR_FAMILY_ID] != nullptr) {
        uint32_t FamilyId = 0; /* 16 bits travel */
        nla_memcpy(&FamilyId, Attributes[CTRL_ATTR_FAMILY_ID], sizeof(FamilyId));
        *static_cast<uint32_t *>(Arg) = FamilyId;
    }
    return NL_OK;
}

/* A connected socket of the caller's that hands valid messages to Parse; or null, and *Status is
 * libnl's error, 0 for want of memory. */
static struct nl_sock *_CreateSock(int Protocol, nl_recvmsg_msg_cb_t Parse, void *Arg, int *Status)
{
    NL_SOCK_SCOPE Sock(nl_socket_alloc());

    *Status = 0;
    if (!Sock) {
        OV_LOG_ERROR(" nl_socket_allow failed");
        return nullptr;
    }
    nl_socket_disable_seq_check(Sock.get());
    *Status = nl_socket_modify_cb(Sock.get(), NL_CB_VALID, NL_CB_CUSTOM, Parse, Arg);
    if (*Status != 0) {
        OV_LOG_ERROR("nl_socket_modify_cb failed(err: %d)", *Status);
        return nullptr;
    }
    *Status = _OV_RTCLibNlConnect(Sock.get(), Protocol, OWNED_BY_THREAD);
    if (*Status != 0) {
        OV_LOG_ERROR("genl_connect failed(err: %d)", *Status);
        return nullptr;
    }
    return Sock.release();
}

struct nl_sock *_RTCMonitorCreateGenl()
{
    int Status = 0;

    g_OV_RTCMonitorPtxFamilyId = 0;
    return _CreateSock(NETLINK_GENERIC, _RTCMonitorParseGenlMsgForFamilyId,
                       &g_OV_RTCMonitorPtxFamilyId, &Status);
}

/* Sends a request with one attribute, of at most 250 bytes. Returns libnl's negative error, or what
 * was sent. */
static int _SendRequest(struct nl_sock *Sock, int FamilyId, uint8_t Command, uint16_t AttributeType,
                        const void *Data, int Size)
{
    const struct nlattr Attribute = {static_cast<uint16_t>(nla_attr_size(Size)), AttributeType};
    _OV_RTC_GENL_HDR Request = {};

    Request.GenlHdr.cmd = Command;
    Request.GenlHdr.version = GENL_VERSION;
    memcpy(Request.Buf, &Attribute, sizeof(Attribute));
    memcpy(Request.Buf + NLA_HDRLEN, Data, static_cast<size_t>(Size));
    return nl_send_simple(Sock, FamilyId, NLM_F_REQUEST, &Request, Attribute.nla_len + GENL_HDRLEN);
}

int _RTCMonitorGenlGetPtxFamilyId(struct nl_sock *Sock)
{
    /* Without a request that is on its way nothing would end the wait for its answer. */
    if (_SendRequest(Sock, GENL_ID_CTRL, CTRL_CMD_GETFAMILY, CTRL_ATTR_FAMILY_NAME,
                     OV_CON_FAMILY_NAME, static_cast<int>(strlen(OV_CON_FAMILY_NAME)) + 1) < 0 ||
        nl_recvmsgs_default(Sock) != 0) {
        return -1;
    }
    OV_LOG_INFO("get family id %u", g_OV_RTCMonitorPtxFamilyId);
    return static_cast<int>(g_OV_RTCMonitorPtxFamilyId);
}

int _OV_RTCMonitorGenlSendPtxNotify(struct nl_sock *Sock, const OV_CON_STATE_NOTIFY *Notify)
{
    if (_SendRequest(Sock, static_cast<int>(g_OV_RTCMonitorPtxFamilyId), OV_CON_GENL_OP_STATEREPLY,
                     OV_CON_GENL_ATTR_STATE_NOTIFY, Notify, sizeof(*Notify)) < 0) {
        OV_LOG_ERROR("send notify to ovconn failed, id:%d value:%d,%s",
                     static_cast<int>(Notify->Id), static_cast<int>(Notify->Value),
                     strerror(errno));
        return -1;
    }
    OV_LOG_INFO("send notify to ovconn success, id:%d value:%d", static_cast<int>(Notify->Id),
                static_cast<int>(Notify->Value));
    return 0;
}

int OV_RTCGenlMonitorSendPtxNotify(OV_CON_STATE_NOTIFY *Notify)
{
    const CANCEL_SCOPE Whole;

    if (Notify == nullptr) {
        OV_LOG_ERROR("invalid param ");
        return -1;
    }
    const MUTEX_SCOPE FamilyId(s_FamilyIdLock);
    const NL_SOCK_SCOPE Sock(_RTCMonitorCreateGenl());
    if (!Sock) {
        OV_LOG_ERROR("_RTCMonitorCreateGenl failed");
        return -1;
    }
    const int Found = _RTCMonitorGenlGetPtxFamilyId(Sock.get());
    if (Found <= 0) {
        OV_LOG_ERROR("get famili id failed(%d)", Found);
        return -1;
    }
    return _OV_RTCMonitorGenlSendPtxNotify(Sock.get(), Notify);
}

/* ---- The route dump ---- */

int _RTCMonitorAllRouteParse(struct nl_msg *Message, void *Arg)
{
    const auto CallBack = reinterpret_cast<NotifyCallback>(Arg);
    OV_RTC_MONITOR_NOTIFY Notify;

    if (CallBack != nullptr &&
        _OV_RTCRouteNotifyBuild(nlmsg_hdr(Message), DUMP_MISSING_DESTINATION, -1, &Notify)) {
        Notify.RouteNotify.Event = 1;
        CallBack(&Notify);
    }
    return NL_OK;
}

int OV_RTCGenlMonitorGetAllRoute(const NotifyCallback CallBack)
{
    const CANCEL_SCOPE Whole;
    struct rtmsg Request = {};
    int Status = 0;

    const NL_SOCK_SCOPE Sock(_CreateSock(NETLINK_ROUTE, _RTCMonitorAllRouteParse,
                                         reinterpret_cast<void *>(CallBack), &Status));
    if (!Sock) {
        return Status;
    }
    Request.rtm_family = AF_INET;
    Status = nl_send_simple(Sock.get(), RTM_GETROUTE, NLM_F_DUMP, &Request, sizeof(Request));
    if (Status < 0) {
        OV_LOG_ERROR("nl_send_simple failed(err: %d)", Status);
        return Status;
    }
    Status = nl_recvmsgs_default(Sock.get());
    if (Status < 0) {
        OV_LOG_ERROR("nl_recvmsgs_default failed(err: %d)", Status);
    }
    return Status;
}
