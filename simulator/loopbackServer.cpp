#include "loopbackServer.h"

#include <algorithm>
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

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
        const std::lock_guard Guard(Lock);

        if (Stopped || Socket < 0) {
            close(Socket);
            return;
        }
        const int One = 1;
        setsockopt(Socket, IPPROTO_TCP, TCP_NODELAY, &One, sizeof(One));
        const size_t Index = Sockets.size();
        Sockets.push_back(Socket);
        Threads.emplace_back([this, Socket, Index] {
            Serve(Socket);
            const std::lock_guard Closing(Lock);
            close(Socket);
            Sockets[Index] = -1;
        });
    }
}

void LOOPBACK_SERVER::Disconnect()
{
    const std::lock_guard Guard(Lock);

    for (const int Socket : Sockets) {
        shutdown(Socket, SHUT_RDWR);
    }
}

size_t LOOPBACK_SERVER::Connections()
{
    const std::lock_guard Guard(Lock);

    return Sockets.size();
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
    for (std::thread &Thread : Threads) {
        Thread.join();
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
