#include "orvaneDispatchClient.h"

#include "orvaneDispatchInternal.h"
#include "orvaneForeignInternal.h"
#include "orvaneGateInternal.h"
#include "orvaneMem.h"
#include "orvaneSocketInternal.h"
#include "orvaneThread.h"

#include <arpa/inet.h>
#include <atomic>
#include <stdlib.h>
#include <utility>

static constexpr const char *SERVER_ADDRESS = "127.0.0.1";
static constexpr uint16_t CONFIG_PORT = 54321;
static constexpr uint16_t NOTIFY_PORT = 54322;
static constexpr uint32_t NOTIFY_DESC_SIZE = 2048;

/* Every line of this module begins with where it was written. */
#define DISPATCH_LOG(Priority, Format, ...) \
    OV_SYSLOG(Priority, "[%s:%d]" Format "\n", __func__, __LINE__, ##__VA_ARGS__)

/* Held for one exchange, for as long as the server takes. */
static constinit FORK_MUTEX g_ConfigMutexLock(FORK_RANK_DISPATCH_EXCHANGE, HELD_FOR_LONG);

/* Held for one push, for as long as the server takes to read it; and by whoever closes notification
 * connections, so that no push writes to a number that has become somebody else's. */
static constinit FORK_MUTEX s_PushLock(FORK_RANK_DISPATCH_PUSH, HELD_FOR_LONG);

/* Guards connections and runs; never held while anything waits for the server. Taken after either
 * of the two above. Sockets are opened and closed under it, and are noted while they are open: a
 * forked child knows them all. */
static void _ForgetParent();
static constinit FORK_MUTEX s_StateLock(FORK_RANK_DISPATCH_STATE, HELD_FOR_A_MOMENT, _ForgetParent);
static constinit FORK_CONDITION s_RunEnded;

/* Exchanges pass it: also before the first start, but not from the beginning of a start until it is
 * complete, nor after a stop. */
static constinit GATE s_Gate(GATE::OPEN_WHEN_NEW, nullptr);

/* A socket that is open, and the one that it replaced. */
struct OPEN_SOCKET {
    OV_SOCKET Sock;
    OPEN_SOCKET *Before;
};

/* A connection to one port of the server. One thread at a time makes and uses it; others end what
 * that one waits for. It may be made anew: the sockets before stay open as long as it. */
struct CONNECTION {
    uint16_t Port;
    bool IsEnded;         /* nobody may wait for it any more */
    OPEN_SOCKET *Made;    /* the newest first; null: not connected */
    OPEN_SOCKET *Attempt; /* being connected */
};

/* One run of the notification thread, which frees it at its end. */
struct _OV_DISPATCH_NOTIFY_ENTRY {
    CONNECTION Connection;
    OV_THREAD_T Thread;
    OV_DISPATCH_DESC *Desc; /* what the thread receives into */
    _OV_DISPATCH_NOTIFY_ENTRY *Next;
};

static CONNECTION g_DispatchConfig = {CONFIG_PORT, false, nullptr, nullptr};

/* The run of this start; null: none, or it ended. */
static _OV_DISPATCH_NOTIFY_ENTRY *g_DispatchNotify;

/* All, also one that is being started, or was stopped by its own handler. */
static _OV_DISPATCH_NOTIFY_ENTRY *s_Runs;

/* The run that the calling thread is, null on every other thread. */
static thread_local _OV_DISPATCH_NOTIFY_ENTRY *s_OwnRun;

/* Changed by compare-and-swap alone, read without a lock. */
static std::atomic<OV_DISPATCH_FUNC> g_DispatchClientFunc[UINT8_MAX + 1];

/* ---- A connection ---- */

static OV_SOCKET _SocketOf(const OPEN_SOCKET *Open)
{
    return Open == nullptr ? -1 : Open->Sock;
}

/* Whatever waits for the server wakes with an error. */
static void _ShutDown(const OPEN_SOCKET *Open)
{
    shutdown(_SocketOf(Open), SHUT_RDWR);
}

static void _CloseFrom(OPEN_SOCKET *Newest)
{
    while (Newest != nullptr) {
        OPEN_SOCKET *Closed = std::exchange(Newest, Newest->Before);

        OV_SocketClose(Closed->Sock);
        free(Closed);
    }
}

/* Under s_StateLock, like the next one. An attempt that begins to wait only after this would not
 * notice that its socket is shut down: it is not to wait. */
static void _End(CONNECTION *Connection)
{
    static constexpr struct timeval AT_ONCE = {0, 1};

    Connection->IsEnded = true;
    OV_SetSockOpt(_SocketOf(Connection->Attempt), SOL_SOCKET, SO_SNDTIMEO, &AT_ONCE,
                  sizeof(AT_ONCE));
    _ShutDown(Connection->Attempt);
    _ShutDown(Connection->Made);
}

static void _CloseWhole(CONNECTION *Connection)
{
    _CloseFrom(std::exchange(Connection->Made, nullptr));
    _CloseFrom(std::exchange(Connection->Attempt, nullptr));
}

static void _Close(CONNECTION *Connection)
{
    const MUTEX_SCOPE State(s_StateLock);

    _CloseWhole(Connection);
}

/* -ESHUTDOWN: others have ended the connection. */
static OV_ERR_T _BeginAttempt(CONNECTION *Connection, OV_SOCKET *Sock)
{
    const MUTEX_SCOPE State(s_StateLock);
    if (Connection->IsEnded) {
        return -ESHUTDOWN;
    }
    auto *Attempt = static_cast<OPEN_SOCKET *>(OV_PlatformMemZeroAlloc(sizeof(OPEN_SOCKET), 0));
    if (Attempt == nullptr) {
        return -ENOMEM;
    }

    const OV_ERR_T Error = OV_Socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0, &Attempt->Sock);
    if (Error < 0) {
        free(Attempt);
        return Error;
    }
    *Sock = Attempt->Sock;
    Connection->Attempt = Attempt;
    return 0;
}

static OV_ERR_T _EndAttempt(CONNECTION *Connection, OV_ERR_T Error)
{
    const MUTEX_SCOPE State(s_StateLock);
    OPEN_SOCKET *Attempt = std::exchange(Connection->Attempt, nullptr);

    if (Error < 0) {
        _CloseFrom(Attempt);
        return Error;
    }
    _ShutDown(Connection->Made); /* a push that is stuck in it would not let go */
    Attempt->Before = Connection->Made;
    Connection->Made = Attempt;
    if (Connection->IsEnded) {
        _ShutDown(Attempt); /* the stop came just as it was made */
    }
    return 0;
}

/* The numbers are part of the three texts. */
static OV_ERR_T _OV_DispatchConnect(const char *IpAddr, CONNECTION *Connection)
{
    static constexpr const char *FUNCTION = "_OV_DispatchConnect";
    OV_SOCKET Sock = -1;
    struct sockaddr_in Server = {};

    OV_ERR_T Error = _BeginAttempt(Connection, &Sock);
    if (Error == -ESHUTDOWN) {
        return Error;
    }
    if (Error < 0) {
        OV_SYSLOG(LOG_ERR, "[%s:%d]Fail to create socket! retcode=%d\n", FUNCTION, 89, Error);
        return Error;
    }
    Server.sin_family = AF_INET;
    Server.sin_port = htons(Connection->Port);
    errno = EINVAL; /* a text that is no address leaves errno alone */
    if (inet_pton(AF_INET, IpAddr, &Server.sin_addr) != 1) {
        Error = -errno;
        OV_SYSLOG(LOG_ERR, "[%s:%d]Fail to convert ip address!\n", FUNCTION, 97);
        return _EndAttempt(Connection, Error);
    }
    Error = _OV_SocketConnect(Sock, Server);
    if (Error < 0) {
        OV_SYSLOG(LOG_ERR, "[%s:%d]Fail to connect to server %s:%u! retcode=%d\n", FUNCTION, 105,
                  IpAddr, static_cast<unsigned>(Connection->Port), Error);
    }
    return _EndAttempt(Connection, Error);
}

static OV_ERR_T _Connect(CONNECTION *Connection)
{
    return _OV_DispatchConnect(SERVER_ADDRESS, Connection);
}

/* ---- A run of the notification thread ---- */

static void _FreeRun(_OV_DISPATCH_NOTIFY_ENTRY *Run)
{
    _ShutDown(Run->Connection.Made); /* lets go a push that is stuck in it */
    const MUTEX_SCOPE Push(s_PushLock);
    const MUTEX_SCOPE State(s_StateLock);
    _OV_DISPATCH_NOTIFY_ENTRY **Link = &s_Runs;

    while (*Link != Run) {
        Link = &(*Link)->Next;
    }
    *Link = Run->Next;
    _CloseWhole(&Run->Connection);
    if (g_DispatchNotify == Run) {
        g_DispatchNotify = nullptr;
        s_RunEnded.WakeAll();
    }
    free(Run);
}

/* Connected; null: Error says why not. */
static _OV_DISPATCH_NOTIFY_ENTRY *_MakeRun(OV_ERR_T *Error)
{
    auto *Run = static_cast<_OV_DISPATCH_NOTIFY_ENTRY *>(
        OV_PlatformMemZeroAlloc(sizeof(_OV_DISPATCH_NOTIFY_ENTRY), 0));
    if (Run == nullptr) {
        *Error = -ENOMEM;
        return nullptr;
    }

    Run->Connection.Port = NOTIFY_PORT;
    {
        const MUTEX_SCOPE State(s_StateLock);
        Run->Next = std::exchange(s_Runs, Run);
    }
    *Error = _Connect(&Run->Connection);
    if (*Error < 0) {
        _FreeRun(Run);
        return nullptr;
    }
    return Run;
}

static bool _ShouldStop(_OV_DISPATCH_NOTIFY_ENTRY *Run)
{
    OV_THREAD_T Thread;
    {
        const MUTEX_SCOPE State(s_StateLock);
        Thread = Run->Thread;
    }
    if (!Thread.IsStop) {
        return false;
    }
    const SYSTEM_LOG_SCOPE Note;
    return OV_ThreadShouldStop(Thread);
}

static void _Deliver(OV_DISPATCH_DESC *Desc)
{
    const OV_DISPATCH_FUNC Func = OV_DispatchClientGetModuleFunc(OV_DispatchHeader(Desc)->Module);
    const RCU_READER_SCOPE Reader;

    if (Func != nullptr) {
        Func(Desc);
    }
}

static void *_OV_DispatchNotifyClientThread(void *Arg)
{
    const CANCEL_SCOPE Whole; /* a stop waits for the end of this function */
    auto *Run = static_cast<_OV_DISPATCH_NOTIFY_ENTRY *>(Arg);

    g_IsLibraryThread = true;
    s_Gate.WaitWhileStarting(); /* a handler may stop what runs */
    s_OwnRun = Run;
    Run->Desc = OV_DispatchAllocDesc(NOTIFY_DESC_SIZE);
    if (Run->Desc == nullptr) {
        DISPATCH_LOG(LOG_ERR, "Fail to allocate memory");
    }
    while (Run->Desc != nullptr && !_ShouldStop(Run)) {
        _OV_DispatchClear(Run->Desc->Buff, Run->Desc->Size);
        const OV_ERR_T Error = OV_DispatchRecv(_SocketOf(Run->Connection.Made), Run->Desc);
        if (Error >= 0) {
            _Deliver(Run->Desc);
            continue;
        }
        DISPATCH_LOG(LOG_INFO,
                     "Fail to receive config messages, maybe socket is closed! retcode=%d", Error);
        if (_Connect(&Run->Connection) < 0) {
            break;
        }
    }
    OV_DispatchFreeDesc(Run->Desc);
    _FreeRun(Run);
    return nullptr;
}

static OV_ERR_T _StartThread(_OV_DISPATCH_NOTIFY_ENTRY *Run)
{
    const SIGNAL_SCOPE NoSignals; /* the thread's, too: one would break its connection */
    pthread_attr_t Attr;

    pthread_attr_init(&Attr);
    pthread_attr_setdetachstate(&Attr, PTHREAD_CREATE_DETACHED);
    const OV_ERR_T Error =
        OV_ThreadRun(&Run->Thread, &Attr, _OV_DispatchNotifyClientThread, Run, "NotifyClient");
    pthread_attr_destroy(&Attr);
    return Error;
}

/* A handler that stops the client is on the thread that would be waited for. The thread then keeps
 * what it still needs, the message in the handler's hands, and ends by itself. */
static void _WaitForRun()
{
    const MUTEX_SCOPE State(s_StateLock);

    if (g_DispatchNotify != nullptr && g_DispatchNotify == s_OwnRun) {
        g_DispatchNotify = nullptr;
        _OV_DispatchDisown(s_OwnRun->Desc);
    }
    while (g_DispatchNotify != nullptr) {
        s_RunEnded.Wait(s_StateLock);
    }
}

/* ---- Start and stop ---- */

/* A forked child has neither the threads nor whoever held the locks, and the connections are its
 * parent's: its own descriptors of them are closed, without a word to the server, and it may start
 * anew. A handler that forked may return in the child: the child's thread then frees its run. */
static void _ForgetParent()
{
    _CloseWhole(&g_DispatchConfig);
    g_DispatchConfig.IsEnded = false;
    g_DispatchNotify = nullptr;
    for (_OV_DISPATCH_NOTIFY_ENTRY *Run = s_Runs; Run != nullptr; Run = Run->Next) {
        _CloseWhole(&Run->Connection);
        Run->Thread.IsStop = TRUE;
    }
}

/* Nobody gets in any more; the connection is closed when the last has left. */
static void _EndExchanges()
{
    {
        const MUTEX_SCOPE State(s_StateLock);
        _End(&g_DispatchConfig);
    }
    s_Gate.WaitUntilEmpty();
    const MUTEX_SCOPE State(s_StateLock);
    _CloseWhole(&g_DispatchConfig);
    g_DispatchConfig.IsEnded = false;
}

static void _Unregister()
{
    const MUTEX_SCOPE Push(s_PushLock); /* a push has its message from the module */

    _OV_DispatchUnregister();
}

/* The right to start is the caller's: exchanges of before the first start end, and their connection
 * with them. Both steps log at Function, the start that the caller is. */
static OV_ERR_T _StartConfig(const char *Function)
{
    _EndExchanges();
    OV_ERR_T Error = _OV_DispatchRegister();
    if (Error < 0) {
        OV_SYSLOG(LOG_ERR, "[%s:%d]failed to register dispatch memory! retcode=%d\n", Function,
                  __LINE__, Error);
        return Error;
    }
    Error = _Connect(&g_DispatchConfig);
    if (Error < 0) {
        OV_SYSLOG(LOG_ERR, "[%s:%d]Fail to connect to server! retcode=%d\n", Function, __LINE__,
                  Error);
    }
    return Error;
}

static OV_ERR_T _StartNotify(const char *Function)
{
    OV_ERR_T Error;
    _OV_DISPATCH_NOTIFY_ENTRY *Run = _MakeRun(&Error);
    if (Run == nullptr) {
        OV_SYSLOG(LOG_ERR, "[%s:%d]failed to connect notify server! retcode=%d\n", Function,
                  __LINE__, Error);
        return Error;
    }
    Error = _StartThread(Run);
    if (Error < 0) {
        OV_SYSLOG(LOG_ERR, "[%s:%d]failed to create notify server! retcode=%d\n", Function,
                  __LINE__, Error);
        _FreeRun(Run);
        return Error;
    }
    const MUTEX_SCOPE State(s_StateLock);
    g_DispatchNotify = Run;
    return 0;
}

static OV_ERR_T _EndStart(OV_ERR_T Error)
{
    if (Error < 0) {
        _EndExchanges();
        _Unregister();
        s_Gate.End();
        return Error;
    }
    OV_SYSLOG(LOG_INFO, "Dispath Client loaded!\n");
    s_Gate.Commit();
    return 0;
}

OV_ERR_T OV_DispatchClientInit(void)
{
    const CANCEL_SCOPE Whole;
    if (!s_Gate.BeginStart()) {
        return -EALREADY;
    }

    OV_ERR_T Error = _StartConfig(__func__);
    if (Error >= 0) {
        Error = _StartNotify(__func__);
    }
    return _EndStart(Error);
}

OV_ERR_T OV_DispatchClientInitNoNotify(void)
{
    const CANCEL_SCOPE Whole;
    if (!s_Gate.BeginStart()) {
        return -EALREADY;
    }

    return _EndStart(_StartConfig(__func__));
}

static void _EndRun()
{
    const MUTEX_SCOPE State(s_StateLock);

    if (g_DispatchNotify != nullptr) {
        _End(&g_DispatchNotify->Connection);
        g_DispatchNotify->Thread.Tid = 0;
        g_DispatchNotify->Thread.IsStop = TRUE;
    }
}

void OV_DispatchClientExit(void)
{
    const CANCEL_SCOPE Whole;
    if (!s_Gate.BeginStopOfAny()) {
        return; /* a handler stops what is being stopped, and waited for */
    }

    _EndRun();
    _EndExchanges();
    _WaitForRun();
    _Unregister();
    OV_SYSLOG(LOG_INFO, "Dispath Client unloaded!\n");
    s_Gate.End();
}

BOOL OV_DispatchClientIsListening(void)
{
    const MUTEX_SCOPE State(s_StateLock);

    return g_DispatchNotify != nullptr && !g_DispatchNotify->Thread.IsStop;
}

/* ---- What runs on the connections ---- */

/* The lock is held until a broken connection is closed, so that nobody else's exchange begins on
 * it. */
static OV_ERR_T _Exchange(OV_DISPATCH_DESC *Desc)
{
    const MUTEX_SCOPE Turn(g_ConfigMutexLock);
    OV_ERR_T Error = g_DispatchConfig.Made == nullptr ? _Connect(&g_DispatchConfig) : 0;
    const OV_SOCKET Sock = _SocketOf(g_DispatchConfig.Made);

    if (Error >= 0) {
        Error = OV_DispatchSend(Sock, Desc);
    }
    if (Error >= 0) {
        _OV_DispatchClear(Desc->Buff, Desc->Size);
        Error = OV_DispatchRecv(Sock, Desc);
    }
    if (Error < 0) {
        _Close(&g_DispatchConfig);
    }
    return Error;
}

OV_ERR_T OV_DispatchConfigure(OV_DISPATCH_DESC *Desc)
{
    const CANCEL_SCOPE Whole;
    const GATE_SCOPE Passed(s_Gate);

    if (!Passed.IsIn()) {
        return -ESHUTDOWN;
    }
    /* For what is no message there would be no reply, and everybody else would wait, too. */
    return _OV_DispatchIsWhole(Desc) ? _Exchange(Desc) : -EINVAL;
}

static OV_SOCKET _NotifySocket()
{
    const MUTEX_SCOPE State(s_StateLock);

    return g_DispatchNotify == nullptr ? -1 : _SocketOf(g_DispatchNotify->Connection.Made);
}

void OV_DispatchNotifyReply(uint8_t Module, uint16_t Type, const void *Info, uint32_t Size)
{
    const CANCEL_SCOPE Whole;
    const MUTEX_SCOPE Push(s_PushLock);
    const OV_SOCKET Sock = _NotifySocket();
    if (OV_SocketIsErr(Sock)) {
        return;
    }

    OV_DISPATCH_DESC *Desc = Size > INT32_MAX ? nullptr : OV_DispatchAllocDesc(Size + 8);
    if (Desc == nullptr) {
        DISPATCH_LOG(LOG_ERR, "Fail to allocate memory");
        return;
    }
    OV_DispatchInitHdr(Desc, Module, Type);
    if (OV_DispatchPut(Desc, Info, static_cast<int32_t>(Size)) == 0) {
        OV_DispatchSend(Sock, Desc);
    }
    OV_DispatchFreeDesc(Desc);
}

OV_ERR_T OV_DispatchClientAddModuleFunc(uint8_t Module, OV_DISPATCH_FUNC Func)
{
    OV_DISPATCH_FUNC Empty = nullptr;

    return g_DispatchClientFunc[Module].compare_exchange_strong(Empty, Func) ? 0 : -EBADE;
}

void OV_DispatchClientDelModuleFunc(uint8_t Module, OV_DISPATCH_FUNC Func)
{
    g_DispatchClientFunc[Module].compare_exchange_strong(Func, nullptr);
}

OV_DISPATCH_FUNC OV_DispatchClientGetModuleFunc(uint8_t Module)
{
    return g_DispatchClientFunc[Module].load();
}
