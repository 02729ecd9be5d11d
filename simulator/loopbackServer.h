/* A peer on 127.0.0.1, for the simulated services and for tests: each connection is served by the
 * caller's function on a thread of its own, which speaks the frame, or misbehaves as a test wants.
 * A connection that cannot be taken, for want of a descriptor, is tried again later. */
#ifndef LOOPBACK_SERVER_H
#define LOOPBACK_SERVER_H

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <stdint.h>
#include <string>
#include <thread>

class LOOPBACK_SERVER {
  public:
    /* The connection is closed when Serve returns. */
    using SERVE = std::function<void(int Socket)>;
    LOOPBACK_SERVER(uint16_t Port, SERVE Serve);
    /* Refuses new connections, shuts down the open ones and waits for their functions. */
    ~LOOPBACK_SERVER();
    LOOPBACK_SERVER(const LOOPBACK_SERVER &) = delete;
    LOOPBACK_SERVER &operator=(const LOOPBACK_SERVER &) = delete;

    /* How many connections there have been. */
    size_t Connections();
    /* Shuts down the connections that are open now; new ones are still taken. */
    void Disconnect();

  private:
    void Accept();
    bool Take(int Socket);
    void ServeAndEnd(int Socket);

    const SERVE Serve;
    const int ListenSocket;
    std::mutex Lock;
    std::condition_variable Ended;   /* a connection did, under Lock */
    bool Stopped = false;            /* under Lock */
    size_t Taken = 0;                /* under Lock */
    std::map<int, std::thread> Open; /* under Lock, by socket */
    std::thread Last;                /* under Lock; the one that ended last joins its predecessor */
    std::thread Acceptor;
};

/* A socket that listens there; Backlog as for listen. The process ends when the port is taken. */
int ListenOnLoopback(uint16_t Port, int Backlog);

/* Exactly Size bytes; shorter when the peer is gone. */
std::string ReceiveBytes(int Socket, size_t Size);
/* All of them at once, or in pieces of that many bytes; false when the peer is gone. */
bool SendBytes(int Socket, const std::string &Bytes, size_t Piece = SIZE_MAX);

/* A record's bytes as they travel. */
template <typename RECORD>
std::string BytesOf(const RECORD &Record)
{
    return {reinterpret_cast<const char *>(&Record), sizeof(Record)};
}

#endif
