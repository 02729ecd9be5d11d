#include "linuxRtcSockMonitor.h"

#include "linuxRtcNotifyInternal.h"
#include "linuxRtcTextInternal.h"
#include "orvaneDispatchClient.h"
#include "orvaneLibrtcLog.h"

#include <algorithm>
#include <atomic>
#include <errno.h>
#include <string.h>

static constexpr uint8_t MODULES[] = {OV_DISPATCH_MOD_OVCONN, OV_DISPATCH_MOD_NETIO,
                                      OV_DISPATCH_MOD_DATAPATH, OV_DISPATCH_MOD_RATELIMIT,
                                      OV_DISPATCH_MOD_SECURITY};

/* Notifications of OV_DISPATCH_MOD_DATAPATH, and the one of OV_DISPATCH_MOD_RATELIMIT. */
static constexpr uint16_t TYPE_URL_FLOW = 29;
static constexpr uint16_t TYPE_REPORT = 30;
static constexpr uint16_t TYPE_SA_CLUSTER_MSG = 32;
static constexpr uint16_t TYPE_RATE_LIMIT = 6;

/* Changed by compare-and-swap and by clearing it, read once for each event, without a lock. */
static std::atomic<NotifyCallback> OV_RTCNotifyCallback;

static void _Deliver(OV_RTC_MONITOR_NOTIFY *Notify)
{
    const NotifyCallback Callback = OV_RTCNotifyCallback;

    if (Callback != nullptr) {
        Callback(Notify);
    }
}

static ADDRESS_TEXT _AddressText(const OV_CON_STATE_NOTIFY &State, const _OV_IP_ADDR &Address)
{
    return State.IsIpv6Ptx ? _OV_RTCIp6Text(Address.V6) : _OV_RTCIp4Text(Address.V4);
}

static OV_ERR_T _ServiceStateHandle(RECORD Record, NOTIFY_DELIVER Deliver)
{
    OV_RTC_MONITOR_NOTIFY Notify;
    const OV_CON_STATE_NOTIFY &State = Notify.ConnNotify;

    _OV_RTCNotifyInit(&Notify, MONITOR_CONN, Record.first(sizeof(State)));
    OV_LOG_INFO("recv ovconn state notify: id = %u type = %u subtype = %u value = %u "
                "IsIpv6Ptx = %u mode = %u sessionid=%u srcip=%s dstip=%s srcport = %u dstport = %u "
                "policyid=%u BuddyId=%u",
                State.Id, State.Type, State.SubType, State.Value, State.IsIpv6Ptx, State.ConnMode,
                State.SessionId, _AddressText(State, State.SrcIp).Text,
                _AddressText(State, State.DstIp).Text, State.SrcPort, State.DstPort, State.PolicyId,
                State.BuddyId);
    Deliver(&Notify);
    return 0;
}

static OV_ERR_T _PeerHostHandle(RECORD Record, NOTIFY_DELIVER Deliver)
{
    OV_RTC_MONITOR_NOTIFY Notify;
    const OV_PEER_HOST_NOTIFY &Peer = Notify.PeerHostReachableNotify;

    _OV_RTCNotifyInit(&Notify, MONITOR_PEER_HOST_REACHABLE, Record.first(sizeof(Peer)));
    const bool IsReachable = Peer.NotifyType == 1;
    const char *const Label = Peer.CustomerId == 0 ? "PopId" : "CpeId";
    OV_LOG_INFO("recv ovconn peer host notify: NotifyType = %u(%s) CustomerId = %u %s = %u ",
                Peer.NotifyType, IsReachable ? "reachable" : "unreachable", Peer.CustomerId, Label,
                Peer.PopId);
    if (IsReachable) {
        OV_LOG_INFO("Receive reachable notify from Datapath due to at least one connection with "
                    "%s %u has been up",
                    Label, Peer.PopId);
    } else {
        OV_LOG_INFO("Receive unreachable notify from Datapath due to all connections with %s %u "
                    "have been down",
                    Label, Peer.PopId);
    }
    Deliver(&Notify);
    return 0;
}

static OV_ERR_T _ClusterHandle(RECORD Record, NOTIFY_DELIVER Deliver)
{
    const NOTIFY_SCOPE Notify = _OV_RTCNotifyAlloc(MONITOR_SA_CLUSTER_MSG, Record, Record.size());

    if (!Notify) {
        return -ENOMEM;
    }
    Deliver(Notify.get());
    return 0;
}

static OV_ERR_T _ServiceRateLimitHandle(RECORD Record, NOTIFY_DELIVER Deliver)
{
    OV_RATE_LIMIT_STATE_NOTIFY_HEADER Head;

    if (Record.size() < sizeof(Head)) {
        OV_LOG_ERROR("Invalide ratelimit notify");
        return -EBADMSG;
    }
    memcpy(&Head, Record.data(), sizeof(Head));
    if (Head.NotifyMsgRateLimitNum == 0) {
        return 0;
    }
    const size_t Size = std::min(Record.size(), sizeof(OV_RATE_LIMIT_STATE_NOTIFY));
    const NOTIFY_SCOPE Notify = _OV_RTCNotifyAlloc(MONITOR_RATELIMIT, Record.first(Size),
                                                   sizeof(OV_RATE_LIMIT_STATE_NOTIFY));
    if (!Notify) {
        return -ENOMEM;
    }
    Deliver(Notify.get());
    return 0;
}

struct NOTIFICATION {
    uint8_t ModId;
    uint16_t Type;
    int Size; /* of the fixed fields; 0: measured by Handle */
    RECORD_HANDLER Handle;
};

static constexpr NOTIFICATION NOTIFICATIONS[] = {
    {OV_DISPATCH_MOD_OVCONN, OV_DISPATCH_TYPE_CONN_NOTIFY_STATE, sizeof(OV_CON_STATE_NOTIFY),
     _ServiceStateHandle},
    {OV_DISPATCH_MOD_OVCONN, OV_DISPATCH_TYPE_PEER_HOST_REACHABLE_STATE,
     sizeof(OV_PEER_HOST_NOTIFY), _PeerHostHandle},
    {OV_DISPATCH_MOD_NETIO, OV_DISPATCH_TYPE_NETIO_NOTIFY_IF, sizeof(OV_NETIO_STATE_NOTIFY),
     _OV_RTCNetioHandle},
    {OV_DISPATCH_MOD_DATAPATH, TYPE_URL_FLOW, sizeof(OV_FLOW_URL_NOTIFY_INFO),
     _OV_RTCUrlFlowHandle},
    {OV_DISPATCH_MOD_DATAPATH, TYPE_REPORT, sizeof(OV_DP_REPORT_HEADER), _OV_RTCReportHandle},
    {OV_DISPATCH_MOD_DATAPATH, TYPE_SA_CLUSTER_MSG, 0, _ClusterHandle}, /* whatever came */
    {OV_DISPATCH_MOD_RATELIMIT, TYPE_RATE_LIMIT, 0, _ServiceRateLimitHandle},
};

static void _OV_RTCConfigNotify(uint8_t ModId, uint16_t Type, void *Info, int Size)
{
    if (Info == nullptr) {
        return;
    }
    const auto *Known =
        std::find_if(std::begin(NOTIFICATIONS), std::end(NOTIFICATIONS),
                     [=](const auto &Row) { return Row.ModId == ModId && Row.Type == Type; });
    if (Known == std::end(NOTIFICATIONS)) {
        OV_LOG_ERROR("Unknown notify MOD=%u Type=%u", ModId, Type);
        return;
    }
    if (!_OV_RTCRecordHolds("dispatch type", Type, Known->Size, Size)) {
        return;
    }
    const RECORD Record(static_cast<const uint8_t *>(Info), static_cast<size_t>(Size));
    if (Known->Handle(Record, _Deliver) == -ENOMEM) {
        OV_LOG_ERROR("malloc error");
    }
}

static OV_DISPATCH_DESC *_OV_RTCConfigUniversalFunc(OV_DISPATCH_DESC *Desc)
{
    const OV_DISPATCH_HDR *Header = OV_DispatchHeader(Desc);

    /* The used size is the header's length less 8, and never more than the buffer has. */
    _OV_RTCConfigNotify(Header->Module, Header->Type, OV_DispatchPayload(Desc),
                        OV_DispathUsedSize(Desc));
    return Desc;
}

OV_ERR_T OV_RTCSockMonitorInit(void)
{
    for (const uint8_t Module : MODULES) {
        const OV_ERR_T Error = OV_DispatchClientAddModuleFunc(Module, _OV_RTCConfigUniversalFunc);
        if (Error != 0) {
            return Error;
        }
    }
    return 0;
}

void OV_RTCSockMonitorExit(void)
{
    for (const uint8_t Module : MODULES) {
        OV_DispatchClientDelModuleFunc(Module, _OV_RTCConfigUniversalFunc);
    }
}

OV_ERR_T OV_RTCSockMonitorRegCallback(NotifyCallback Callback)
{
    NotifyCallback None = nullptr;

    OV_RTCNotifyCallback.compare_exchange_strong(None, Callback);
    return 0;
}

void OV_RTCSockMonitorUnregCallback(void)
{
    OV_RTCNotifyCallback = nullptr;
}

OV_ERR_T OV_RTCSockMonitorSendPtxNotify(OV_CON_STATE_NOTIFY *Notify)
{
    if (Notify == nullptr) {
        OV_LOG_ERROR("invalid param ");
        return -EINVAL;
    }
    OV_DispatchNotifyReply(OV_DISPATCH_MOD_OVCONN, OV_DISPATCH_TYPE_CONN_NOTIFY_STATE, Notify,
                           sizeof(*Notify));
    return 0;
}
