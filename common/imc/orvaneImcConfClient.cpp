#include "orvaneImcConfClient.h"

#include "orvaneScope.h"

#include <atomic>
#include <netinet/in.h>
#include <string.h>
#include <syslog.h>

static constexpr uint16_t SERVICE_PORT = 55435;

/* Held for reading by each call that may use the connection or a message, for writing by start and
 * stop. So a stop waits until nobody needs what it takes away. Readers nest: a reply handler may
 * exchange. Taken before sg_ImcConfLock. */
static pthread_rwlock_t sg_ImcConfInUse = PTHREAD_RWLOCK_INITIALIZER;

/* -1: none. Opened and closed under sg_ImcConfInUse; a stop takes it away before it waits. */
static std::atomic<OV_SOCKET> sg_ImcConfSocket = -1;

/* One exchange at a time. There is a lock whenever there is a socket. */
static OV_MUTEX_T sg_ImcConfLock;

static OV_ERR_T _OV_ImcConfConnect()
{
    OV_SOCKET Socket = -1;

    syslog(LOG_DEBUG, "_OV_ImcConfConnect connnect to 0x%x:%d\n", INADDR_LOOPBACK, SERVICE_PORT);
    const OV_ERR_T Result = OV_ImcConnect(INADDR_LOOPBACK, SERVICE_PORT, &Socket);
    if (Result == 0) {
        sg_ImcConfSocket.store(Socket);
    }
    return Result;
}

OV_ERR_T OV_ImcConfClientInit(void)
{
    const CANCEL_SCOPE Whole;
    const WRITE_SCOPE Alone(sg_ImcConfInUse);
    if (!OV_SocketIsErr(sg_ImcConfSocket.load())) {
        return -EALREADY;
    }

    OV_MutexInit(&sg_ImcConfLock);
    OV_ERR_T Result = OV_FlexMsgInit();
    if (Result < 0) {
        syslog(LOG_ERR, "Failed to OV_FlexMsgInit\n");
        return Result;
    }
    Result = _OV_ImcConfConnect();
    if (Result < 0) {
        syslog(LOG_ERR, "Failed to _OV_ImcConfConnect, ret = %d\n", Result);
        OV_FlexMsgRelease();
    }
    return Result;
}

void OV_ImcConfClientRelease(void)
{
    const CANCEL_SCOPE Whole;
    const OV_SOCKET Socket = sg_ImcConfSocket.exchange(-1);
    if (OV_SocketIsErr(Socket)) {
        return;
    }

    /* Ends an exchange that waits for a silent service; its holder would never let go of it. */
    shutdown(Socket, SHUT_RDWR);
    const WRITE_SCOPE Alone(sg_ImcConfInUse);
    OV_SocketClose(Socket);
    OV_FlexMsgRelease();
    OV_MutexDestroy(&sg_ImcConfLock);
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
        syslog(LOG_ERR, "Imc recv hdr failed : %d\n", Result);
        return Result;
    }
    const uint64_t PayloadBytes = OV_ImcReplyHdr(Msg)->PayloadBytes;
    if (PayloadBytes == 0) {
        return 0;
    }
    Result = OV_ImcRecvAll(Socket, Msg, PayloadBytes);
    if (Result < 0) {
        syslog(LOG_ERR, "Imc recv payload failed : %d\n", Result);
    }
    return Result;
}

/* Called with sg_ImcConfInUse held for reading. */
static OV_ERR_T _Configure(OV_FLEXIBLE_MSG *Msg)
{
    if (Msg->Pos < sizeof(OV_IMC_REQ_HDR) || Msg->Pos > Msg->Size) {
        return -EINVAL;
    }
    const OV_SOCKET Socket = sg_ImcConfSocket.load();
    if (OV_SocketIsErr(Socket)) {
        return OV_ImcSendAll(Socket, Msg); /* fails, and logs it as any broken connection */
    }

    const MUTEX_SCOPE Lock(sg_ImcConfLock);
    const OV_ERR_T Result = _SendAndReceive(Socket, Msg);
    if (Result < 0) {
        /* The rest of this reply may still come; it must not be read as the next one. */
        shutdown(Socket, SHUT_RDWR);
        return Result;
    }
    return OV_ImcReplyHdr(Msg)->RetCode;
}

OV_ERR_T OV_ImcConfigure(OV_FLEXIBLE_MSG *Msg)
{
    const CANCEL_SCOPE Whole;
    const READ_SCOPE InUse(sg_ImcConfInUse);

    return _Configure(Msg);
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

static OV_ERR_T _Request(const IMC_CALL &Call, OV_FLEXIBLE_MSG *Msg)
{
    OV_ImcRequstInitHdr(Msg, Call.Mod, Call.OpType);
    OV_ERR_T Result = OV_ImcSafeSetRequestPayload(Msg, Call.Data, Call.DataBytes);
    if (Result < 0) {
        syslog(LOG_ERR, "Failed to OV_ImcSafeSetRequestPayload in %s :%s \n", Call.Function,
               _ErrorText(Result));
        return Result;
    }

    Result = _Configure(Msg);
    if (Result < 0 && Call.LogsFailure) {
        syslog(LOG_ERR, "Failed to OV_ImcConfigure in %s :%s \n", Call.Function,
               _ErrorText(Result));
    }
    return Result;
}

/* Take(RetCode, Msg) gets the reply of a service that agreed; its result is the call's. */
template <typename TAKE>
static OV_ERR_T _Exchange(const IMC_CALL &Call, TAKE Take)
{
    const CANCEL_SCOPE Whole;
    const READ_SCOPE InUse(sg_ImcConfInUse);
    const FLEX_MSG_SCOPE Msg(OV_FlexMsgAlloc());
    if (Msg == nullptr) {
        syslog(LOG_ERR, "Failed to OV_FlexMsgAlloc in %s\n", Call.Function);
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
        syslog(LOG_ERR, "the %d(%d) request can't get reply data\n", Call.Mod, Call.OpType);
        return -ENODATA;
    }
    if (PayloadBytes > ReplyBytes) {
        memcpy(Reply, OV_ImcReplyPayload(Msg), ReplyBytes);
        syslog(LOG_ERR, "the %d(%d) reply data is truncated.\n", Call.Mod, Call.OpType);
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
