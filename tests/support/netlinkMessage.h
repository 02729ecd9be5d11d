/* Netlink messages made by hand, for the parsers that libnl calls. */
#ifndef NETLINK_MESSAGE_H
#define NETLINK_MESSAGE_H

#include <netlink/handlers.h>
#include <stdint.h>
#include <string>
#include <vector>

/* A message of that type: the family's header, then attributes by type and payload. The last one
 * ends where its payload ends. */
using NETLINK_ATTRIBUTES = std::vector<std::pair<uint16_t, std::string>>;
std::string NetlinkMessage(uint16_t Type, const std::string &Header,
                           const NETLINK_ATTRIBUTES &Attributes);

/* Calls the parser with the message at the end of a heap block, so that asan sees a read beyond. */
int ParseMessage(nl_recvmsg_msg_cb_t Parser, const std::string &Message, void *Arg = nullptr);

/* Sends the message from a socket of that protocol to another one's port; false when that fails. */
bool SendMessage(int Protocol, uint32_t Port, const std::string &Message);

#endif
