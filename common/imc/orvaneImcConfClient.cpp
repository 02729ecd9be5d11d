#include "orvaneImcConfClient.h"

#include "orvaneForeignInternal.h"
#include "orvaneGateInternal.h"
#include "orvaneImcInternal.h"

#include <memory>
#include <netinet/in.h>
#include <string.h>
#include <utility>

static constexpr uint16_t SERVICE_PORT = 55435;

static void _ForgetConnection();

/* Held while the socket is made or closed: a forked child knows it from its first moment. */
static constinit FORK_MUTEX s_SocketLock(FORK_RANK_IMC_SOCKET, HELD_FOR_A_MOMENT,
                                         _ForgetConnection);

/* -1: none. Changed by start and stop alone, while nobody is inside the gate. */
static OV_SOCKET sg_ImcConfSocket = -1;

/* A forked child has no connection: it is its parent's, which must not lose it. The child may start
 * anew; the messages' initialisation of before stays counted. */
static void _ForgetConnection()
{
    OV_SocketClose(std::exchange(sg_ImcConfSocket, -1));
}

/* Passed by each call that may use the connection or a message; a stop waits until nobody needs
 * what it takes away. */
static constinit GATE sg_ImcConfGate(GATE::CLOSED_WHEN_NEW, nullptr);

/* One exchange at a time, for as long as the service takes. */
static constinit FORK_MUTEX sg_ImcConfLock(FORK_RANK_IMC_EXCHANGE, HELD_FOR_LONG);

struct FLEX_MSG_FREE {
    void operator()(OV_FLEXIBLE_MSG *Msg) const
    {
        OV_FlexMsgFree(Msg);
    }
};
using FLEX_MSG_SCOPE = std::unique_ptr<OV_FLEXIBLE_MSG, FLEX_MSG_FREE>;

static void _CloseConnection()
{
    const MUTEX_SCOPE Closing(s_SocketLock);

    OV_SocketClose(std::exchange(sg_ImcConfSocket, -1));
}

static OV_ERR_T _OV_ImcConfConnect()
{
    OV_SYSLOG(LOG_DEBUG, "_OV_ImcConfConnect connnect to 0x%x:%d\n", INADDR_LOOPBACK, SERVICE_PORT);
    OV_ERR_T Result;
    {
        const MUTEX_SCOPE Making(s_SocketLock);
        Result = _OV_ImcMakeSocket(&sg_ImcConfSocket);
    }
    if (Result >= 0) {
        Result = _OV_ImcConnectSocket(sg_ImcConfSocket, INADDR_LOOPBACK, SERVICE_PORT);
    }
    if (Result < 0) {
        _CloseConnection();
    }
    return Result;
}

static OV_ERR_T _Start()
{
    OV_ERR_T Result = OV_FlexMsgInit();
    if (Result < 0) {
        OV_SYSLOG(LOG_ERR, "Failed to OV_FlexMsgInit\n");
        return Result;
    }
    Result = _OV_ImcConfConnect();
    if (Result < 0) {
        OV_SYSLOG(LOG_ERR, "Failed to _OV_ImcConfConnect, ret = %d\n", Result);
        OV_FlexMsgRelease();
    }
    return Result;
}

OV_ERR_T OV_ImcConfClientInit(void)
{
    const CANCEL_SCOPE Whole;
    if (!sg_ImcConfGate.BeginStart()) {
        return -EALREADY;
    }

    const OV_ERR_T Result = _Start();
    if (Result == 0) {
        sg_ImcConfGate.Commit();
    } else {
        sg_ImcConfGate.End();
    }
    return Result;
}

void OV_ImcConfClientRelease(void)
{
    const CANCEL_SCOPE Whole;
    if (!sg_ImcConfGate.BeginStop()) {
        return;
    }

    shutdown(sg_ImcConfSocket, SHUT_RDWR); /* ends an exchange that waits for a silent service */
    sg_ImcConfGate.WaitUntilEmpty();
    _CloseConnection();
    OV_FlexMsgRelease();
    sg_ImcConfGate.End();
}

static OV_ERR_T _SendAndReceive(OV_SOCKET Socket, OV_FLEXIBLE_MSG *Msg)
{
    OV_ERR_T Result = OV_ImcSendAll(Socket, Msg);
    if (Result < 0) {
        return Result;
    }

    OV_FlexMsgResetDataLen(Msg);
    Result = OV_ImcRecvAll(Socket, Msg, sizeof(OV_IMC_REPLY_HDR));
    if (Result < 0) {
        OV_SYSLOG(LOG_ERR, "Imc recv hdr failed : %d\n", Result);
        return Result;
    }
    const uint64_t PayloadBytes = OV_ImcReplyHdr(Msg)->PayloadBytes;
    if (PayloadBytes == 0) {
        return 0;
    }
    Result = OV_ImcRecvAll(Socket, Msg, PayloadBytes);
    if (Result < 0) {
        OV_SYSLOG(LOG_ERR, "Imc recv payload failed : %d\n", Result);
    }
    return Result;
}

/* Called inside the gate. */
static OV_ERR_T _Configure(OV_FLEXIBLE_MSG *Msg)
{
    if (Msg->Pos < sizeof(OV_IMC_REQ_HDR) || Msg->Pos > Msg->Size) {
        return -EINVAL;
    }

    const MUTEX_SCOPE Lock(sg_ImcConfLock);
    const OV_ERR_T Result = _SendAndReceive(sg_ImcConfSocket, Msg);
    if (Result < 0) {
        /* The rest of this reply may still come; it must not be read as the next one. */
        shutdown(sg_ImcConfSocket, SHUT_RDWR);
        return Result;
    }
    return OV_ImcReplyHdr(Msg)->RetCode;
}

/* Outside the gate there is no connection; code and line are those of a send on none. */
static OV_ERR_T _RefuseOutside()
{
    OV_SYSLOG(LOG_ERR, "OV_ImcSendAll failed : %s %d\n", strerror(EBADF), -EBADF);
    return -EBADF;
}

OV_ERR_T OV_ImcConfigure(OV_FLEXIBLE_MSG *Msg)
{
    const CANCEL_SCOPE Whole;
    const GATE_SCOPE Passed(sg_ImcConfGate);

    return Passed.IsIn() ? _Configure(Msg) : _RefuseOutside();
}

/* What the three calls below ask for. */
struct IMC_CALL {
    const char *Function; /* the caller, for the log */
    uint8_t Mod;
    uint16_t OpType;
    const void *Data;
    size_t DataBytes;
    bool LogsFailure; /* of the exchange; a failed Get is its caller's to report */
};

/* The service's code may be any number, also the one that has no opposite. */
static const char *_ErrorText(OV_ERR_T Result)
{
    return strerror(static_cast<int>(0U - static_cast<uint32_t>(Result)));
}

static void _LogFailure(const IMC_CALL &Call, const char *Step, OV_ERR_T Result)
{
    OV_SYSLOG(LOG_ERR, "Failed to %s in %s :%s \n", Step, Call.Function, _ErrorText(Result));
}

static OV_ERR_T _Configured(const IMC_CALL &Call, OV_ERR_T Result)
{
    if (Result < 0 && Call.LogsFailure) {
        _LogFailure(Call, "OV_ImcConfigure", Result);
    }
    return Result;
}

static OV_ERR_T _Request(const IMC_CALL &Call, OV_FLEXIBLE_MSG *Msg)
{
    OV_ImcRequstInitHdr(Msg, Call.Mod, Call.OpType);
    const OV_ERR_T Result = OV_ImcSafeSetRequestPayload(Msg, Call.Data, Call.DataBytes);
    if (Result < 0) {
        _LogFailure(Call, "OV_ImcSafeSetRequestPayload", Result);
        return Result;
    }

    return _Configured(Call, _Configure(Msg));
}

/* Take(RetCode, Msg) gets the reply of a service that agreed; its result is the call's. */
template <typename TAKE>
static OV_ERR_T _Exchange(const IMC_CALL &Call, TAKE Take)
{
    const CANCEL_SCOPE Whole;
    const GATE_SCOPE Passed(sg_ImcConfGate);
    if (!Passed.IsIn()) {
        return _Configured(Call, _RefuseOutside());
    }
    const FLEX_MSG_SCOPE Msg(OV_FlexMsgAlloc());
    if (Msg == nullptr) {
        OV_SYSLOG(LOG_ERR, "Failed to OV_FlexMsgAlloc in %s\n", Call.Function);
        return -ENOMEM;
    }

    const OV_ERR_T Result = _Request(Call, Msg.get());
    return Result < 0 ? Result : Take(Result, Msg.get());
}

OV_ERR_T OV_ImcConfSet(uint8_t Mod, uint16_t OpType, const void *Data, size_t DataBytes)
{
    return _Exchange({__func__, Mod, OpType, Data, DataBytes, true},
                     [](OV_ERR_T RetCode, const OV_FLEXIBLE_MSG *) { return RetCode; });
}

static OV_ERR_T _CopyReply(const IMC_CALL &Call, const OV_FLEXIBLE_MSG *Msg, void *Reply,
                           size_t ReplyBytes)
{
    const uint64_t PayloadBytes = OV_ImcReplyHdr(Msg)->PayloadBytes;

    if (PayloadBytes == 0) {
        OV_SYSLOG(LOG_ERR, "the %d(%d) request can't get reply data\n", Call.Mod, Call.OpType);
        return -ENODATA;
    }
    if (PayloadBytes > ReplyBytes) {
        memcpy(Reply, OV_ImcReplyPayload(Msg), ReplyBytes);
        OV_SYSLOG(LOG_ERR, "the %d(%d) reply data is truncated.\n", Call.Mod, Call.OpType);
        return -ENOBUFS;
    }
    memcpy(Reply, OV_ImcReplyPayload(Msg), PayloadBytes);
    return OV_ImcReplyHdr(Msg)->RetCode;
}

OV_ERR_T OV_ImcConfGet(uint8_t Mod, uint16_t OpType, const void *Requset, size_t RequsetBytes,
                       void *Reply, size_t ReplyBytes)
{
    const IMC_CALL Call = {__func__, Mod, OpType, Requset, Requset == nullptr ? 0 : RequsetBytes,
                           false};

    return _Exchange(Call, [&](OV_ERR_T RetCode, const OV_FLEXIBLE_MSG *Msg) {
        return Reply == nullptr || ReplyBytes == 0 ? RetCode
                                                   : _CopyReply(Call, Msg, Reply, ReplyBytes);
    });
}

OV_ERR_T OV_ImcConfGetByFunc(uint8_t Mod, uint8_t OpType, const void *Requset, size_t RequsetBytes,
                             OV_IMC_REPLY_HANDLER ReplyHandlerFunc, void *ReplyHandlerFuncArgs)
{
    const IMC_CALL Call = {__func__, Mod, OpType, Requset, Requset == nullptr ? 0 : RequsetBytes,
                           true};

    return _Exchange(Call, [&](OV_ERR_T RetCode, const OV_FLEXIBLE_MSG *Msg) {
        return ReplyHandlerFunc == nullptr
                   ? RetCode
                   : ReplyHandlerFunc(OV_ImcReplyPayload(Msg), OV_ImcReplyHdr(Msg)->PayloadBytes,
                                      ReplyHandlerFuncArgs);
    });
}
