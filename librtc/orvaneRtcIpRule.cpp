#include "orvaneRtcIpRule.h"

#include "orvaneRtcLibnlInternal.h"

#include <errno.h>
#include <linux/fib_rules.h>
#include <linux/netlink.h>
#include <netlink/errno.h>
#include <string.h>

static constexpr const char *CACHE_NAME = "route/rule"; /* libnl's, for rules of all families */

static constexpr LIBNL_REQUEST<struct rtnl_rule> RULE_REQUESTS[] = {
    {OV_RTC_LIBNL_OP_ADD, "ip rule add", "rtnl_rule_add", rtnl_rule_add, NLM_F_EXCL},
    {OV_RTC_LIBNL_OP_DEL, "ip rule del", "rtnl_rule_delete", rtnl_rule_delete, 0},
};

/* As a number: a caller's record may hold what is no value of the type. */
static uint32_t _IpTypeOf(const OV_RTC_IP_RULE_CONF *IpRuleConf)
{
    uint32_t IpType;

    memcpy(&IpType, &IpRuleConf->IpType, sizeof(IpType));
    return IpType;
}

static bool _HasFamily(const OV_RTC_IP_RULE_CONF *IpRuleConf)
{
    const uint32_t IpType = _IpTypeOf(IpRuleConf);

    return IpType == OV_IN_ADDR_TYPE_IPV4 || IpType == OV_IN_ADDR_TYPE_IPV6;
}

/* All rules of all families, offered to libnl's cache manager. Returns libnl's result. */
static int _RuleCacheFill(const LIBNL_SESSION &Session, NL_CACHE_SCOPE *OutCache)
{
    struct nl_cache *Cache = nullptr;

    /* What rtnl_rule_alloc_cache does, but for the rules that it loses when it fails half-way. */
    int NlResult = _OV_RTCLibNlCacheAlloc(CACHE_NAME, &Cache);
    if (NlResult < 0) {
        return NlResult;
    }
    NlResult = nl_cache_refill(Session.Sock.get(), Cache);
    if (NlResult < 0) {
        _OV_RTCLibNlCacheFree(Cache);
        return NlResult;
    }
    _OV_RTCLibNlCacheProvide(CACHE_NAME, Cache);
    OutCache->reset(Cache);
    return 0;
}

static OV_ERR_T _OV_RTCIpRuleMsgBuild(struct rtnl_rule *Rule, uint8_t RuleOpType,
                                      const OV_RTC_IP_RULE_CONF *IpRuleConf)
{
    if (RuleOpType == OV_RTC_LIBNL_OP_ADD) {
        rtnl_rule_set_action(Rule, FR_ACT_TO_TBL);
    } else if (RuleOpType == OV_RTC_LIBNL_OP_DEL) {
        rtnl_rule_set_action(Rule, FR_ACT_UNSPEC);
    }
    if (RuleOpType != OV_RTC_LIBNL_OP_DUMP || IpRuleConf->Priority != 0) {
        rtnl_rule_set_prio(Rule, IpRuleConf->Priority); /* rules are dumped without priority 0 */
    }
    if (IpRuleConf->TableId != 0) {
        rtnl_rule_set_table(Rule, IpRuleConf->TableId);
    }
    if (!_HasFamily(IpRuleConf)) {
        return 0;
    }

    const int Family = _IpTypeOf(IpRuleConf) == OV_IN_ADDR_TYPE_IPV6 ? AF_INET6 : AF_INET;
    const OV_CONF_IP_MASK &Prefix = IpRuleConf->SrcPrefix;
    rtnl_rule_set_family(Rule, Family);
    if (!_OV_RTCIsConfAddrSet(Family, Prefix)) {
        return 0;
    }
    const NL_ADDR_SCOPE Source = _OV_RTCLibNlConfAddrBuild(Family, Prefix, Prefix.Mask);
    if (!Source) {
        OV_LOG_CONF_ADDR_FAILURE(Family, Prefix);
        return -ENOMEM;
    }
    const int NlResult = rtnl_rule_set_src(Rule, Source.get());
    const OV_ERR_T Error = _OV_RTCLibNlResult(NlResult);
    if (Error < 0) {
        OV_LOG_ERROR("rtnl_rule_set_src failed(ovRet = %d nlRet = %d)", Error, NlResult);
    }
    return Error;
}

/* An operation without a request of its own sends nothing. */
static OV_ERR_T _OV_RTCIpRuleConf(struct nl_sock *Sock, uint8_t RuleOpType, struct rtnl_rule *Rule)
{
    const auto *Request = _OV_RTCLibNlRequestFind(RULE_REQUESTS, RuleOpType);
    char Text[LIBNL_TEXT_SIZE];

    if (Request == nullptr) {
        return 0;
    }
    OV_LOG_INFO("%s %s.", Request->Name, _OV_RTCLibNlObjectText(OBJ_CAST(Rule), Text));
    const int NlResult = Request->Call(Sock, Rule, Request->Flags);
    const OV_ERR_T Error = _OV_RTCLibNlResult(NlResult);
    if (Error < 0) {
        OV_LOG_ERROR("%s failed(ovRet = %d nlRet = %d(%s)).", Request->CallName, Error, NlResult,
                     nl_geterror(NlResult));
    }
    return Error;
}

static OV_ERR_T _OV_RTCIpRuleProcess(uint8_t RuleOpType, const OV_RTC_IP_RULE_CONF *IpRuleConf)
{
    LIBNL_SESSION Session;
    NL_CACHE_SCOPE Cache;

    OV_ERR_T Error = _OV_RTCLibNlSessionOpen(&Session);
    if (Error < 0) {
        OV_LOG_ERROR("OV_RTCLibNlSockAlloc failed(ret = %d).", Error);
        return Error;
    }
    const int NlResult = _RuleCacheFill(Session, &Cache);
    Error = _OV_RTCLibNlResult(NlResult);
    if (Error < 0) {
        OV_LOG_ERROR("rtnl_rule_alloc_cache failed(ovRet = %d nlRet = %d(%s))", Error, NlResult,
                     nl_geterror(NlResult));
        return Error;
    }
    const RTNL_RULE_SCOPE Rule(rtnl_rule_alloc());
    if (!Rule) {
        OV_LOG_ERROR("rtnl_rule_alloc failed");
        return -ENOMEM;
    }
    Error = _OV_RTCIpRuleMsgBuild(Rule.get(), RuleOpType, IpRuleConf);
    if (Error < 0) {
        OV_LOG_ERROR("_OV_RTCIpRuleMsgBuild failed(ovRet = %d).", Error);
        return Error;
    }
    Error = _OV_RTCIpRuleConf(Session.Sock.get(), RuleOpType, Rule.get());
    if (Error < 0) {
        OV_LOG_ERROR("_OV_RTCIntfIpConf failed(ovRet = %d).", Error);
    }
    return Error;
}

OV_ERR_T OV_RTCIpRuleAdd(const OV_RTC_IP_RULE_CONF *IpRuleConf)
{
    if (IpRuleConf == nullptr || IpRuleConf->TableId == 0 || !_HasFamily(IpRuleConf)) {
        return -EINVAL;
    }
    return _OV_RTCIpRuleProcess(OV_RTC_LIBNL_OP_ADD, IpRuleConf);
}

OV_ERR_T OV_RTCIpRuleDel(const OV_RTC_IP_RULE_CONF *IpRuleConf)
{
    if (IpRuleConf == nullptr || !_HasFamily(IpRuleConf)) {
        return -EINVAL;
    }
    return _OV_RTCIpRuleProcess(OV_RTC_LIBNL_OP_DEL, IpRuleConf);
}

static bool _IsMatch(struct nl_object *Object, struct rtnl_rule *Filter, uint32_t Priority)
{
    return nl_object_match_filter(Object, OBJ_CAST(Filter)) == 1 &&
           rtnl_rule_get_prio(reinterpret_cast<struct rtnl_rule *>(Object)) == Priority;
}

BOOL OV_IsIpRuleExist(const OV_RTC_IP_RULE_CONF *IpRuleConf)
{
    LIBNL_SESSION Session;
    NL_CACHE_SCOPE Cache;

    OV_ERR_T Error = _OV_RTCLibNlSessionOpen(&Session);
    if (Error < 0) {
        OV_LOG_ERROR("OV_RTCLibNlSockAlloc failed(ret = %d).", Error);
        return FALSE;
    }
    const int NlResult = _RuleCacheFill(Session, &Cache);
    if (NlResult < 0) {
        OV_LOG_ERROR("rtnl_rule_alloc_cache failed(nlRet = %d(%s))", NlResult,
                     nl_geterror(NlResult));
        return FALSE;
    }
    const RTNL_RULE_SCOPE Filter(rtnl_rule_alloc());
    if (!Filter) {
        OV_LOG_ERROR("rtnl_rule_alloc failed");
        return FALSE;
    }
    Error = _OV_RTCIpRuleMsgBuild(Filter.get(), OV_RTC_LIBNL_OP_DUMP, IpRuleConf);
    if (Error < 0) {
        OV_LOG_ERROR("_OV_RTCIpRuleMsgBuild failed(ovRet = %d).", Error);
        return FALSE;
    }
    struct nl_object *Object = nl_cache_get_first(Cache.get());
    while (Object != nullptr && !_IsMatch(Object, Filter.get(), IpRuleConf->Priority)) {
        Object = nl_cache_get_next(Object);
    }
    return Object != nullptr;
}
