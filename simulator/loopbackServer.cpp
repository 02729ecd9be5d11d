#include "loopbackServer.h"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>
#include <utility>

/* Long enough not to spin while there are no descriptors, short enough for nobody to notice. */
static constexpr std::chrono::milliseconds RETRY_PAUSE(20);

int ListenOnLoopback(uint16_t Port, int Backlog)
{
    const int Socket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int One = 1;
    struct sockaddr_in Address = {};

    Address.sin_family = AF_INET;
    Address.sin_port = htons(Port);
    Address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    setsockopt(Socket, SOL_SOCKET, SO_REUSEADDR, &One, sizeof(One));
    if (bind(Socket, reinterpret_cast<const struct sockaddr *>(&Address), sizeof(Address)) != 0 ||
        listen(Socket, Backlog) != 0) {
        fprintf(stderr, "port %u of 127.0.0.1: %s\n", static_cast<unsigned>(Port), strerror(errno));
        exit(1);
    }
    return Socket;
}

LOOPBACK_SERVER::LOOPBACK_SERVER(uint16_t Port, SERVE ServeConnection)
    : Serve(std::move(ServeConnection)), ListenSocket(ListenOnLoopback(Port, 64)),
      Acceptor([this] { Accept(); })
{
}

void LOOPBACK_SERVER::Accept()
{
    for (;;) {
        const int Socket = accept4(ListenSocket, nullptr, nullptr, SOCK_CLOEXEC);
        {
            const std::lock_guard Guard(Lock);
            if (Stopped) {
                close(Socket);
                return;
            }
            if (Socket >= 0 && Take(Socket)) {
                continue;
            }
        }
        std::this_thread::sleep_for(RETRY_PAUSE);
    }
}

/* Under Lock. False when there is no thread for it: the connection is closed then. */
bool LOOPBACK_SERVER::Take(int Socket)
{
    const int One = 1;

    setsockopt(Socket, IPPROTO_TCP, TCP_NODELAY, &One, sizeof(One));
    try {
        Open.emplace(Socket, std::thread([this, Socket] { ServeAndEnd(Socket); }));
    } catch (const std::system_error &) {
        close(Socket);
        return false;
    }
    Taken++;
    return true;
}

void LOOPBACK_SERVER::ServeAndEnd(int Socket)
{
    std::thread Former;

    Serve(Socket);
    {
        const std::lock_guard Guard(Lock);
        Former = std::exchange(Last, std::move(Open.at(Socket)));
        Open.erase(Socket);
        close(Socket);
        Ended.notify_all();
    }
    if (Former.joinable()) {
        Former.join();
    }
}

void LOOPBACK_SERVER::Disconnect()
{
    const std::lock_guard Guard(Lock);

    for (const auto &[Socket, Thread] : Open) {
        shutdown(Socket, SHUT_RDWR);
    }
}

size_t LOOPBACK_SERVER::Connections()
{
    const std::lock_guard Guard(Lock);

    return Taken;
}

LOOPBACK_SERVER::~LOOPBACK_SERVER()
{
    {
        const std::lock_guard Guard(Lock);
        Stopped = true;
    }
    shutdown(ListenSocket, SHUT_RDWR);
    Acceptor.join();
    close(ListenSocket);
    Disconnect();
    {
        std::unique_lock Guard(Lock);
        Ended.wait(Guard, [this] { return Open.empty(); });
    }
    if (Last.joinable()) {
        Last.join();
    }
}

std::string ReceiveBytes(int Socket, size_t Size)
{
    std::string Bytes(Size, '\0');
    /* Even for no bytes recv would wait for one. */
    const ssize_t Count = Size == 0 ? 0 : recv(Socket, Bytes.data(), Size, MSG_WAITALL);

    Bytes.resize(static_cast<size_t>(std::max<ssize_t>(Count, 0)));
    return Bytes;
}

bool SendBytes(int Socket, const std::string &Bytes, size_t Piece)
{
    for (size_t Sent = 0; Sent < Bytes.size();) {
        const ssize_t Count =
            send(Socket, Bytes.data() + Sent, std::min(Piece, Bytes.size() - Sent), MSG_NOSIGNAL);
        if (Count <= 0) {
            return false;
        }
        Sent += static_cast<size_t>(Count);
    }
    return true;
}
