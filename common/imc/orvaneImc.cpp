#include "orvaneImc.h"

#include "orvaneForeignInternal.h"
#include "orvaneImcInternal.h"
#include "orvaneSocketInternal.h"

#include <netinet/in.h>
#include <string.h>

static_assert(sizeof(OV_IMC_REQ_HDR) == 16);
static_assert(offsetof(OV_IMC_REQ_HDR, Mod) == 0);
static_assert(offsetof(OV_IMC_REQ_HDR, OpType) == 2);
static_assert(offsetof(OV_IMC_REQ_HDR, PayloadBytes) == 8);
static_assert(offsetof(OV_IMC_REQ_HDR, Payload) == 16);

static_assert(sizeof(OV_IMC_REPLY_HDR) == 16);
static_assert(offsetof(OV_IMC_REPLY_HDR, RetCode) == 0);
static_assert(offsetof(OV_IMC_REPLY_HDR, PayloadBytes) == 8);
static_assert(offsetof(OV_IMC_REPLY_HDR, Payload) == 16);

/* One append serves both kinds. */
static_assert(offsetof(OV_IMC_REQ_HDR, PayloadBytes) == offsetof(OV_IMC_REPLY_HDR, PayloadBytes));

static OV_IMC_REQ_HDR *_RequestHdr(const OV_FLEXIBLE_MSG *Msg)
{
    return static_cast<OV_IMC_REQ_HDR *>(OV_FlexMsgDataHead(Msg));
}

void OV_ImcRequstInitHdr(OV_FLEXIBLE_MSG *Msg, uint8_t Mod, uint16_t OpType)
{
    OV_FlexMsgSetDataLen(Msg, sizeof(OV_IMC_REQ_HDR));
    if (!OV_FlexMsgDataMaybePull(Msg, 0)) { /* a caller may have made the buffer too small */
        OV_FlexMsgResetDataLen(Msg);
        return;
    }
    OV_IMC_REQ_HDR *Hdr = _RequestHdr(Msg);
    Hdr->Mod = Mod;
    Hdr->OpType = OpType;
    Hdr->PayloadBytes = 0;
}

OV_ERR_T OV_ImcSafeSetRequestPayload(OV_FLEXIBLE_MSG *Msg, const void *Data, size_t Size)
{
    if (Msg->Pos < sizeof(OV_IMC_REQ_HDR)) {
        return -EINVAL; /* it would lie on the header */
    }
    const OV_ERR_T Result = OV_FlexMsgSafeSetData(Msg, Data, Size);
    if (Result == 0) {
        _RequestHdr(Msg)->PayloadBytes += Size;
    }
    return Result;
}

OV_ERR_T OV_ImcSafeSetReplyPayload(OV_FLEXIBLE_MSG *Msg, const void *Data, size_t Size)
{
    return OV_ImcSafeSetRequestPayload(Msg, Data, Size);
}

OV_IMC_REPLY_HDR *OV_ImcReplyHdr(const OV_FLEXIBLE_MSG *Msg)
{
    return static_cast<OV_IMC_REPLY_HDR *>(OV_FlexMsgDataHead(Msg));
}

void *OV_ImcReplyPayload(const OV_FLEXIBLE_MSG *Msg)
{
    return OV_ImcReplyHdr(Msg)->Payload;
}

OV_ERR_T _OV_ImcMakeSocket(OV_SOCKET *Socket)
{
    const OV_ERR_T Result = OV_Socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0, Socket);

    if (Result < 0) {
        OV_SYSLOG(LOG_ERR, "OV_Socket failed : %s\n", strerror(-Result));
    }
    return Result;
}

OV_ERR_T _OV_ImcConnectSocket(OV_SOCKET Socket, uint32_t Addr, uint16_t Port)
{
    struct sockaddr_in Peer = {};

    OV_SYSLOG(LOG_DEBUG, "%s connect 0x%x:%d\n", "OV_ImcConnect", Addr, Port);
    Peer.sin_family = AF_INET;
    Peer.sin_port = htons(Port);
    Peer.sin_addr.s_addr = htonl(Addr);
    const OV_ERR_T Result = _OV_SocketConnect(Socket, Peer);
    if (Result < 0) {
        OV_SYSLOG(LOG_ERR, "OV_Connect failed : %s\n", strerror(-Result));
    }
    return Result;
}

OV_ERR_T OV_ImcConnect(uint32_t Addr, uint16_t Port, OV_SOCKET *Fd)
{
    const CANCEL_SCOPE Whole; /* a socket is held */
    OV_SOCKET Socket = -1;

    OV_ERR_T Result = _OV_ImcMakeSocket(&Socket);
    DESCRIPTOR_SCOPE Made(Socket);
    if (Result >= 0) {
        Result = _OV_ImcConnectSocket(Socket, Addr, Port);
    }
    if (Result < 0) {
        return Result;
    }
    *Fd = Made.Release();
    return 0;
}

static bool _IsRetried(OV_ERR_T Error)
{
    return Error == -EAGAIN || Error == -EINTR;
}

/* The end of the stream is an error of this protocol's; both loops end in the same way. */
static OV_ERR_T _LoopResult(OV_LEN_ERR_T Result)
{
    if (Result == 0) {
        return -EREMOTEIO;
    }
    return Result < 0 ? Result : 0;
}

/* Unlike the dispatch sends, each refused one gets its line, also when it is tried again. */
static bool _IsSendRetried(OV_ERR_T Error)
{
    OV_SYSLOG(LOG_ERR, "OV_ImcSendAll failed : %s %d\n", strerror(-Error), Error);
    return _IsRetried(Error);
}

OV_ERR_T OV_ImcSendAll(OV_SOCKET Socket, const OV_FLEXIBLE_MSG *Msg)
{
    if (Msg->Pos > Msg->Size) {
        return -EINVAL;
    }
    return _LoopResult(
        _OV_SocketSendAll(Socket, OV_FlexMsgDataHead(Msg), Msg->Pos, _IsSendRetried));
}

OV_ERR_T OV_ImcRecvAll(OV_SOCKET Socket, OV_FLEXIBLE_MSG *Msg, size_t Len)
{
    if (!OV_FlexMsgDataMaybePull(Msg, Len)) {
        return -ENOMEM;
    }
    const OV_ERR_T Result =
        _LoopResult(_OV_SocketReceiveExactly(Socket, Msg->FlexBuf + Msg->Pos, Len, _IsRetried));
    if (Result == 0) {
        Msg->Pos += Len;
    }
    return Result;
}
