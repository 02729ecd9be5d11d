#include "netlinkMessage.h"

#include "loopbackServer.h"

#include <netlink/msg.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

std::string NetlinkMessage(uint16_t Type, const std::string &Header,
                           const NETLINK_ATTRIBUTES &Attributes)
{
    std::string Body = Header;

    for (const auto &[Attribute, Payload] : Attributes) {
        Body.resize(NLMSG_ALIGN(Body.size()));
        Body += BytesOf(nlattr{static_cast<uint16_t>(NLA_HDRLEN + Payload.size()), Attribute});
        Body += Payload;
    }
    return BytesOf(nlmsghdr{static_cast<uint32_t>(NLMSG_HDRLEN + Body.size()), Type, 0, 0, 0}) +
           Body;
}

int ParseMessage(nl_recvmsg_msg_cb_t Parser, const std::string &Message, void *Arg)
{
    struct nl_msg *Block = nlmsg_alloc_size(Message.size());

    memcpy(nlmsg_hdr(Block), Message.data(), Message.size());
    const int Result = Parser(Block, Arg);
    nlmsg_free(Block);
    return Result;
}

bool SendMessage(int Protocol, uint32_t Port, const std::string &Message)
{
    const int Socket = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, Protocol);
    const struct sockaddr_nl To = {AF_NETLINK, 0, Port, 0};
    const ssize_t Sent = sendto(Socket, Message.data(), Message.size(), 0,
                                reinterpret_cast<const struct sockaddr *>(&To), sizeof(To));

    close(Socket);
    return Sent == static_cast<ssize_t>(Message.size());
}
