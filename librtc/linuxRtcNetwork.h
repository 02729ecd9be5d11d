/*
 * Small operations on the machine's networking: the order of the policy rules, DNS, ARP, bonds and
 * bridges. The rules go to the kernel over netlink (orvaneRtcIpRule.h), all else runs one command;
 * names and texts go through the shell as they stand, so check them first. A command line of 511
 * characters or more is not run.
 *
 * Unless said otherwise the result is 0 when the command succeeded, else -1, also for a text
 * that is null or empty (but for the servers) and a command line that is too long. No state: any
 * thread may call.
 */
#ifndef LINUX_RTC_NETWORK_H
#define LINUX_RTC_NETWORK_H

#include "orvaneInetTypes.h"

OV_PUBLIC_BEGIN

/* Add a rule that sends every source of that family (IPv4 or IPv6) to a table, and delete the first
 * rule of a priority (0 to 65535: its low 16 bits are taken). The result is that of OV_RTCIpRuleAdd
 * and OV_RTCIpRuleDel. */
int32_t OV_RTCNetAddIpRule(const int Prio, const int Table, OV_IN_ADDR_TYPE IpType);
int32_t OV_RTCNetDelIpRule(const int Prio, OV_IN_ADDR_TYPE IpType);

/* Puts the main table (254) at priority 50 and the default table (253) at 240, for both families,
 * in place of a rule that stands there: the rules of other tables go between them. Failures are in
 * the log, those of a first start too, which finds no rules to replace. */
void OV_RTCNetIpRuleOrderInit(void);

/* Writes /etc/resolv.conf anew: a line for each of the servers in resolv, which are separated by
 * blanks; a blank line ends the file. resolv is split in place and must be writable. */
int rtc_net_set_dns(char *resolv);

/* Static entries of the neighbour table, IPv4. */
int rtc_net_arp_add(const char *ip, const char *mac);
int rtc_net_arp_del(const char *ip);

/* Whether the interface answers ARP requests for others. */
int rtc_net_arpproxy_enable(const char *ifname);
int rtc_net_arpproxy_disable(const char *ifname);

/* Loads the bonding driver, without a bond; 0 when it is loaded. */
int rtc_net_bond_load_module(void);

/* Bonds and their ports. The two that ask return 1 for yes and 0 for no (or a failure); the second
 * prints the line it found to standard output. mode: the driver's number, 0 to 6. */
int rtc_net_bond_if_exist(const char *ifname);
int rtc_net_bond_add(const char *ifname);
int rtc_net_bond_del(const char *ifname);
int rtc_net_bond_add_port(const char *ifname, const char *slave);
int rtc_net_bond_del_port(const char *ifname, const char *slave);
int rtc_net_bond_port_if_exist(const char *ifname, const char *slave);
int rtc_net_bond_alg_set(const char *ifname, int mode);

/* Reads the bond's ports, a line with blanks between them. buf must have 8 bytes, whatever size
 * says: that much is filled, and a line of 8 characters and more is dropped. Returns the characters
 * read. */
int rtc_net_bonf_get_allports(const char *ifname, char *buf, size_t size);

/* Spanning tree of a bridge: on for other than 0. */
int rtc_net_br_stp_set(const char *brname, int on);

/* Do nothing; return 0. */
int rtc_net_arp_get(void);
int rtc_net_arpproxy_get(void);
int rtc_net_bond_set(void);
int rtc_net_bond_set_port(void);
int rtc_net_bond_del_allport(const char *ifname);
int rtc_net_br_set(void);
int rtc_net_br_set_port(void);

/* Bridges. Return 0, -1 (the command failed, or a name that is null or empty), or the negated
 * OV_RTC_ERROR_BUFF_OVERFLOW for a command that does not fit: then nothing is run. */

/* Adds a bridge and brings it up; on the boards Huier-H61 and LiHua with a longer transmit queue.
 */
int32_t OV_RTCBridgeAdd(const char *BrIfName);

/* Takes the ports off, brings the bridge down and deletes it. */
int32_t OV_RTCBridgeDel(const char *BrIfName);

/* Takes the port's first IPv4 address and those of its network off (others stay), which brings it
 * up, and puts it in the bridge. */
int32_t OV_RTCBridgePortAdd(const char *BrIfName, const char *PortIfName);

/* Takes a port out of the bridge; the addresses that it had before do not come back. */
int32_t OV_RTCBridgePortDel(const char *BrIfName, const char *PortIfName);

/* Takes all ports off, or none when their names, each with a blank, need 512 characters or more.
 * The result is that of the listing: 0 in both cases, or the negated OV_RTC_ERROR_BUFF_PARSE. */
int32_t OV_RTCBridgePortFlush(const char *BrIfName);

OV_PUBLIC_END

#endif
