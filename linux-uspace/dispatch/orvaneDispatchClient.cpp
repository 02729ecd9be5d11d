#include "orvaneDispatchClient.h"

#include "orvaneDispatchInternal.h"
#include "orvaneForeignInternal.h"
#include "orvaneGateInternal.h"
#include "orvaneMemInternal.h"
#include "orvaneSocketInternal.h"
#include "orvaneThread.h"

#include <arpa/inet.h>
#include <stdlib.h>
#include <utility>

static constexpr const char *SERVER_ADDRESS = "127.0.0.1";
static constexpr uint16_t CONFIG_PORT = 54321;
static constexpr uint16_t NOTIFY_PORT = 54322;
static constexpr const char *MODULE_NAME = "dispatch_client";
static constexpr uint32_t NOTIFY_DESC_SIZE = 2048;

/* Every line of this module begins with where it was written. */
#define DISPATCH_LOG(Priority, Format, ...) \
    OV_SYSLOG(Priority, "[%s:%d]" Format "\n", __func__, __LINE__, ##__VA_ARGS__)

/* A connection in the making: a stop ends it, and lets none begin after it. */
struct CONNECT_ATTEMPT {
    OV_SOCKET Sock; /* -1: none is being made */
    bool IsForbidden;
};

/* One run of the notification thread. The connection and the thread's record come first; all is
 * guarded by s_StateLock, but for Sock and Desc, which the thread itself reads without it. */
struct _OV_DISPATCH_NOTIFY_ENTRY {
    OV_SOCKET Sock; /* replaced by the thread, under the lock */
    OV_THREAD_T Thread;
    OV_DISPATCH_DESC *Desc; /* what the thread receives into */
    OV_SOCKET *Replaced;    /* connections that Sock was before: open until the thread ends */
    size_t ReplacedCount;
    CONNECT_ATTEMPT Attempt;
    bool IsEnded;     /* the thread uses nothing of the module any more */
    bool IsAbandoned; /* stopped by its own handler: the thread frees this record */
};

/* Held for one exchange, for as long as the server takes. Made by the start. */
static constinit FORK_MUTEX g_ConfigMutexLock(FORK_RANK_DISPATCH_EXCHANGE, HELD_FOR_LONG);

/* Held for one push, for as long as the server takes to read it; and by whoever closes notification
 * connections, so that no push writes to a number that has become somebody else's. */
static constinit FORK_MUTEX s_PushLock(FORK_RANK_DISPATCH_PUSH, HELD_FOR_LONG);

/* Guards what follows; never held while anything waits for the server. Taken after either of the
 * two above. */
static void _ForgetParent();
static constinit FORK_MUTEX s_StateLock(FORK_RANK_DISPATCH_STATE, HELD_FOR_A_MOMENT, _ForgetParent);
static constinit FORK_CONDITION s_ThreadEnded;
static OV_SOCKET g_DispatchConfigSock = -1; /* changed by who exchanges, or start and stop */
static CONNECT_ATTEMPT s_ConfigAttempt = {-1, false};
static _OV_DISPATCH_NOTIFY_ENTRY *g_DispatchNotify; /* null: no notification thread */

/* Exchanges pass it: also before the first start, but not from a stop, or a start that failed, to
 * the next start. */
static constinit GATE s_ConfigGate(GATE::OPEN_WHEN_NEW, nullptr);

/* Changed by compare-and-swap alone, read without a lock. */
static std::atomic<OV_DISPATCH_FUNC> g_DispatchClientFunc[UINT8_MAX + 1];

/* The run that the calling thread is, null on every other thread. */
static thread_local _OV_DISPATCH_NOTIFY_ENTRY *s_OwnEntry;

/* Makes Sock the attempt that a stop can end, until the scope ends; Begun is false after a stop. */
class ATTEMPT_SCOPE {
  public:
    ATTEMPT_SCOPE(CONNECT_ATTEMPT &Made, OV_SOCKET Sock) : Attempt(Made)
    {
        const MUTEX_SCOPE State(s_StateLock);

        Begun = !Attempt.IsForbidden;
        Attempt.Sock = Begun ? Sock : -1;
    }
    ~ATTEMPT_SCOPE()
    {
        const MUTEX_SCOPE State(s_StateLock);

        Attempt.Sock = -1;
    }
    ATTEMPT_SCOPE(const ATTEMPT_SCOPE &) = delete;
    ATTEMPT_SCOPE &operator=(const ATTEMPT_SCOPE &) = delete;

    bool Begun;

  private:
    CONNECT_ATTEMPT &Attempt;
};

static void _EndAttempt(CONNECT_ATTEMPT *Attempt)
{
    Attempt->IsForbidden = true;
    shutdown(Attempt->Sock, SHUT_RDWR); /* also wakes who waits for the connection to be made */
}

/* OutSock is written under s_StateLock. The numbers are part of the three texts. */
static OV_ERR_T _OV_DispatchConnect(const char *IpAddr, uint16_t Port, CONNECT_ATTEMPT *Attempt,
                                    OV_SOCKET *OutSock)
{
    static constexpr const char *FUNCTION = "_OV_DispatchConnect";
    OV_SOCKET Sock = -1;
    struct sockaddr_in Server = {};

    OV_ERR_T Error = OV_Socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0, &Sock);
    DESCRIPTOR_SCOPE Opened(Sock);
    if (Error < 0) {
        OV_SYSLOG(LOG_ERR, "[%s:%d]Fail to create socket! retcode=%d\n", FUNCTION, 89, Error);
        return Error;
    }
    errno = EINVAL; /* a text that is no address leaves errno alone */
    if (inet_pton(AF_INET, IpAddr, &Server.sin_addr) != 1) {
        Error = -errno;
        OV_SYSLOG(LOG_ERR, "[%s:%d]Fail to convert ip address!\n", FUNCTION, 97);
        return Error;
    }
    Server.sin_family = AF_INET;
    Server.sin_port = htons(Port);
    const ATTEMPT_SCOPE Making(*Attempt, Sock);
    if (!Making.Begun) {
        return -ESHUTDOWN;
    }
    Error = _OV_SocketConnect(Sock, Server);
    if (Error < 0) {
        OV_SYSLOG(LOG_ERR, "[%s:%d]Fail to connect to server %s:%u! retcode=%d\n", FUNCTION, 105,
                  IpAddr, static_cast<unsigned>(Port), Error);
        return Error;
    }
    const MUTEX_SCOPE State(s_StateLock);
    *OutSock = Opened.Release();
    if (Attempt->IsForbidden) {
        shutdown(*OutSock, SHUT_RDWR); /* the stop came just as it was made */
    }
    return 0;
}

/* Under g_ConfigMutexLock, but for the start's own. A connection that is open is kept. */
static OV_ERR_T _ConnectConfig()
{
    if (!OV_SocketIsErr(g_DispatchConfigSock)) {
        return 0;
    }
    return _OV_DispatchConnect(SERVER_ADDRESS, CONFIG_PORT, &s_ConfigAttempt,
                               &g_DispatchConfigSock);
}

static void _CloseConfig()
{
    const MUTEX_SCOPE State(s_StateLock);

    if (!OV_SocketIsErr(g_DispatchConfigSock)) {
        OV_SocketClose(g_DispatchConfigSock);
        g_DispatchConfigSock = -1;
    }
}

static bool _ShouldStop(_OV_DISPATCH_NOTIFY_ENTRY *Entry)
{
    OV_THREAD_T Thread;
    {
        const MUTEX_SCOPE State(s_StateLock);
        Thread = Entry->Thread;
    }
    return OV_ThreadShouldStop(Thread);
}

/* Keeps the number of the connection that is replaced; one that cannot be noted is closed. */
static void _KeepReplaced(_OV_DISPATCH_NOTIFY_ENTRY *Entry, OV_SOCKET Sock)
{
    auto *Replaced = static_cast<OV_SOCKET *>(OV_PlatformMemRealloc(
        Entry->Replaced, (Entry->ReplacedCount + 1) * sizeof(*Entry->Replaced), 0));

    if (Replaced == nullptr) {
        OV_SocketClose(Sock);
        return;
    }
    Entry->Replaced = Replaced;
    Entry->Replaced[Entry->ReplacedCount++] = Sock;
}

static OV_ERR_T _ReconnectNotify(_OV_DISPATCH_NOTIFY_ENTRY *Entry)
{
    OV_SOCKET Sock = -1;

    const OV_ERR_T Error = _OV_DispatchConnect(SERVER_ADDRESS, NOTIFY_PORT, &Entry->Attempt, &Sock);
    if (Error < 0) {
        return Error;
    }

    shutdown(Entry->Sock, SHUT_RDWR); /* a push that is stuck in it would not let go */
    const MUTEX_SCOPE Push(s_PushLock);
    const MUTEX_SCOPE State(s_StateLock);
    _KeepReplaced(Entry, Entry->Sock);
    Entry->Sock = Sock;
    return 0;
}

static void _Deliver(OV_DISPATCH_DESC *Desc)
{
    const OV_DISPATCH_FUNC Func = OV_DispatchClientGetModuleFunc(OV_DispatchHeader(Desc)->Module);
    const RCU_READER_SCOPE Reader;

    if (Func != nullptr) {
        Func(Desc);
    }
}

static void _FreeDisowned(OV_DISPATCH_DESC *Desc)
{
    if (Desc != nullptr) {
        _OV_MemFreeDisowned(Desc->Buff);
        _OV_MemFreeDisowned(Desc);
    }
}

/* The last that the thread does with anything of the module. */
static void _EndNotify(_OV_DISPATCH_NOTIFY_ENTRY *Entry)
{
    shutdown(Entry->Sock, SHUT_RDWR); /* lets go a push that is stuck in it */
    const MUTEX_SCOPE Push(s_PushLock);
    const MUTEX_SCOPE State(s_StateLock);

    OV_SocketClose(Entry->Sock);
    Entry->Sock = -1;
    for (size_t Index = 0; Index < Entry->ReplacedCount; Index++) {
        OV_SocketClose(Entry->Replaced[Index]);
    }
    free(Entry->Replaced);
    if (Entry->IsAbandoned) {
        _FreeDisowned(Entry->Desc);
        free(Entry);
        return;
    }
    OV_DispatchFreeDesc(Entry->Desc);
    Entry->IsEnded = true;
    s_ThreadEnded.WakeAll();
}

static void *_OV_DispatchNotifyClientThread(void *Arg)
{
    const CANCEL_SCOPE Whole; /* a stop waits for the end of this function */
    auto *Entry = static_cast<_OV_DISPATCH_NOTIFY_ENTRY *>(Arg);

    s_OwnEntry = Entry;
    Entry->Desc = OV_DispatchAllocDesc(NOTIFY_DESC_SIZE);
    if (Entry->Desc == nullptr) {
        DISPATCH_LOG(LOG_ERR, "Fail to allocate memory");
    }
    while (Entry->Desc != nullptr && !_ShouldStop(Entry)) {
        _OV_DispatchClear(Entry->Desc->Buff, Entry->Desc->Size);
        const OV_ERR_T Error = OV_DispatchRecv(Entry->Sock, Entry->Desc);
        if (Error >= 0) {
            _Deliver(Entry->Desc);
            continue;
        }
        DISPATCH_LOG(LOG_INFO,
                     "Fail to receive config messages, maybe socket is closed! retcode=%d", Error);
        if (_ReconnectNotify(Entry) < 0) {
            break;
        }
    }
    _EndNotify(Entry);
    return nullptr;
}

/* Starts the thread on Entry, whose connection is open, and with it the client runs. The thread
 * gets no further than to the lock before: it must not end while it is given its name, and its
 * handlers may stop what runs. */
static OV_ERR_T _RunNotifyThread(_OV_DISPATCH_NOTIFY_ENTRY *Entry)
{
    const MUTEX_SCOPE State(s_StateLock);
    pthread_attr_t Attr;

    pthread_attr_init(&Attr);
    pthread_attr_setdetachstate(&Attr, PTHREAD_CREATE_DETACHED);
    const OV_ERR_T Error =
        OV_ThreadRun(&Entry->Thread, &Attr, _OV_DispatchNotifyClientThread, Entry, "NotifyClient");
    pthread_attr_destroy(&Attr);
    if (Error >= 0) {
        g_DispatchNotify = Entry;
        s_ConfigGate.Commit();
    }
    return Error;
}

/* Whatever waits for the server wakes with an error, and nothing new begins to wait. */
static void _EndWaits()
{
    {
        const MUTEX_SCOPE State(s_StateLock);

        shutdown(g_DispatchConfigSock, SHUT_RDWR);
        _EndAttempt(&s_ConfigAttempt);
        if (g_DispatchNotify != nullptr) {
            shutdown(g_DispatchNotify->Sock, SHUT_RDWR);
            _EndAttempt(&g_DispatchNotify->Attempt);
            g_DispatchNotify->Thread.Tid = 0;
            g_DispatchNotify->Thread.IsStop = TRUE;
        }
    }
    s_ConfigGate.WaitUntilEmpty();
}

/* A forked child has neither the thread nor whoever held the locks, and the connections are its
 * parent's: its own descriptors of them are closed, without a word to the server, and it may start
 * anew. The module's blocks of before stay charged. */
static void _ForgetParent()
{
    OV_SocketClose(std::exchange(g_DispatchConfigSock, -1));
    s_ConfigAttempt = {-1, false};

    _OV_DISPATCH_NOTIFY_ENTRY *Entry = std::exchange(g_DispatchNotify, nullptr);
    if (Entry != nullptr) {
        OV_SocketClose(std::exchange(Entry->Sock, -1));
        for (; Entry->ReplacedCount > 0; Entry->ReplacedCount--) {
            OV_SocketClose(Entry->Replaced[Entry->ReplacedCount - 1]);
        }
        Entry->IsAbandoned = true; /* for a handler that forked: the child is its thread */
        Entry->Thread.IsStop = TRUE;
    }
}

static OV_ERR_T _Register()
{
    /* Exchanges may have passed before the first start: their lock and connection are made anew. */
    _EndWaits();
    _CloseConfig();
    const int32_t ModId = OV_MemModRegister(MODULE_NAME, strlen(MODULE_NAME));
    if (ModId < 0) {
        return ModId;
    }
    g_MemModId = ModId;
    {
        const MUTEX_SCOPE State(s_StateLock);
        s_ConfigAttempt.IsForbidden = false;
    }
    return 0;
}

static void _Unregister()
{
    const MUTEX_SCOPE Push(s_PushLock); /* a push has its message from the module */

    OV_MemModUnRegister(g_MemModId.exchange(-1));
}

/* The end of a stop, and of a start that failed: what waited has been woken, the thread is gone. */
static void _CloseAll()
{
    _CloseConfig();
    _Unregister();
    s_ConfigGate.End();
}

/* What both starts begin with; its lines are those of the start at Function and Line. */
static OV_ERR_T _StartConfig(const char *Function, int Line)
{
    OV_ERR_T Error = _Register();

    if (Error < 0) {
        OV_SYSLOG(LOG_ERR, "[%s:%d]failed to register dispatch memory! retcode=%d\n", Function,
                  Line, Error);
        return Error;
    }
    Error = _ConnectConfig();
    if (Error < 0) {
        OV_SYSLOG(LOG_ERR, "[%s:%d]Fail to connect to server! retcode=%d\n", Function, Line, Error);
    }
    return Error;
}

/* What both starts end with: what has been opened stays only where all went well. */
static OV_ERR_T _EndStart(OV_ERR_T Error)
{
    if (Error < 0) {
        _EndWaits();
        _CloseAll();
        return Error;
    }
    OV_SYSLOG(LOG_INFO, "Dispath Client loaded!\n");
    return 0;
}

static OV_ERR_T _StartNotify(const char *Function)
{
    auto *Entry = static_cast<_OV_DISPATCH_NOTIFY_ENTRY *>(
        OV_PlatformMemZeroAlloc(sizeof(_OV_DISPATCH_NOTIFY_ENTRY), 0));
    OV_ERR_T Error = -ENOMEM;

    if (Entry != nullptr) {
        Entry->Attempt.Sock = -1;
        Error = _OV_DispatchConnect(SERVER_ADDRESS, NOTIFY_PORT, &Entry->Attempt, &Entry->Sock);
    }
    if (Error < 0) {
        OV_SYSLOG(LOG_ERR, "[%s:%d]failed to connect notify server! retcode=%d\n", Function,
                  __LINE__, Error);
        free(Entry);
        return Error;
    }
    Error = _RunNotifyThread(Entry);
    if (Error < 0) {
        OV_SYSLOG(LOG_ERR, "[%s:%d]failed to create notify server! retcode=%d\n", Function,
                  __LINE__, Error);
        OV_SocketClose(Entry->Sock);
        free(Entry);
    }
    return Error;
}

OV_ERR_T OV_DispatchClientInit(void)
{
    const CANCEL_SCOPE Whole;
    if (!s_ConfigGate.BeginStart()) {
        return -EALREADY;
    }

    OV_ERR_T Error = _StartConfig(__func__, __LINE__);
    if (Error >= 0) {
        Error = _StartNotify(__func__);
    }
    return _EndStart(Error);
}

OV_ERR_T OV_DispatchClientInitNoNotify(void)
{
    const CANCEL_SCOPE Whole;
    if (!s_ConfigGate.BeginStart()) {
        return -EALREADY;
    }

    const OV_ERR_T Error = _StartConfig(__func__, __LINE__);
    if (Error >= 0) {
        s_ConfigGate.Commit();
    }
    return _EndStart(Error);
}

/* A handler that stops the client is on the thread that would be waited for. The thread then keeps
 * what it still needs, the message in the handler's hands, and ends by itself. */
static void _StopNotify()
{
    const MUTEX_SCOPE State(s_StateLock);
    _OV_DISPATCH_NOTIFY_ENTRY *Entry = std::exchange(g_DispatchNotify, nullptr);

    if (Entry == nullptr) {
        return;
    }
    if (Entry == s_OwnEntry) {
        Entry->IsAbandoned = true;
        _OV_MemDisown(g_MemModId, Entry->Desc->Buff);
        _OV_MemDisown(g_MemModId, Entry->Desc);
        return;
    }
    while (!Entry->IsEnded) {
        s_ThreadEnded.Wait(s_StateLock);
    }
    free(Entry);
}

void OV_DispatchClientExit(void)
{
    const CANCEL_SCOPE Whole;

    if (!s_ConfigGate.BeginStopOfAny()) {
        return; /* a handler stops what is being stopped, and waited for */
    }
    _EndWaits();
    _StopNotify();
    _CloseAll();
    OV_SYSLOG(LOG_INFO, "Dispath Client unloaded!\n");
}

/* The lock is held until a broken connection is closed, so that nobody else's exchange begins on
 * it. */
static OV_ERR_T _Exchange(OV_DISPATCH_DESC *Desc)
{
    const MUTEX_SCOPE Turn(g_ConfigMutexLock);
    OV_ERR_T Error = _ConnectConfig();

    if (Error >= 0) {
        Error = OV_DispatchSend(g_DispatchConfigSock, Desc);
    }
    if (Error >= 0) {
        _OV_DispatchClear(Desc->Buff, Desc->Size);
        Error = OV_DispatchRecv(g_DispatchConfigSock, Desc);
    }
    if (Error < 0) {
        _CloseConfig();
    }
    return Error;
}

OV_ERR_T OV_DispatchConfigure(OV_DISPATCH_DESC *Desc)
{
    const CANCEL_SCOPE Whole;
    const GATE_SCOPE Passed(s_ConfigGate);

    return Passed.IsIn() ? _Exchange(Desc) : -ESHUTDOWN;
}

static OV_SOCKET _NotifySocket()
{
    const MUTEX_SCOPE State(s_StateLock);

    return g_DispatchNotify == nullptr ? -1 : g_DispatchNotify->Sock;
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
