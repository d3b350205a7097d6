#include "webfilter/agent_reply.h"

#include "core/base/log.h"
#include "core/state/state.h"
#include "core/text/text.h"
#include "platform/psms.h"
#include "webfilter/decision.h"
#include "webfilter/web_event.h"

#include <cstring>

namespace {

constexpr uint32_t OUTAGE_AT = 5; // failures in a row
constexpr uint32_t FAILURES_MAX = 6;

// What jorn_uf_ctx_get_web_policy returns.
constexpr int LATE_DENY = 2;
constexpr int LATE_ALLOW = 3;

constexpr char GET_WEB_POLICY[] = "jorn_uf_ctx_get_web_policy";

void count_failure(daemon_state &state) {
    if (state.fail_cnt >= FAILURES_MAX)
        return;
    if (++state.fail_cnt == OUTAGE_AT) {
        jorn_send_web_event(WEB_EVENT_UNREACHABLE, "urlFilteringServerUnreachable");
        state.reachable_flag = 1;
    }
}

void end_outage(daemon_state &state) {
    if (state.fail_cnt >= OUTAGE_AT)
        jorn_send_web_event(WEB_EVENT_REACHABLE, "urlFilteringServerReachable");
    state.reachable_flag = 0;
    state.fail_cnt = 0;
}

// The policy of one side of the flow, or none.
const web_policy *policy_of_side(const urlf_request &request, const web_intf *binding,
                                 uint32_t if_index) {
    if (binding == nullptr || binding->enable == 0)
        return nullptr;
    const web_policy *policy =
        jorn_get_utp_web_policy(request.trailer_word2, request.trailer_word3);
    if (policy != nullptr) {
        JORN_DEBUG_AS(GET_WEB_POLICY, "Web filter policy cfg found with utp in async ctx\n");
        return policy;
    }
    if (binding->policy != nullptr)
        JORN_DEBUG_AS(GET_WEB_POLICY, "Found policy for Iface %d %s\n", static_cast<int>(if_index),
                      printable_text(binding->ifname).c_str());
    return binding->policy;
}

const web_policy *policy_of(const urlf_request &request) {
    const web_policy *policy = policy_of_side(
        request, __jorn_get_web_intf(field_text(request.src_if_name)), request.src_if_index);
    if (policy != nullptr)
        return policy;
    return policy_of_side(request, __jorn_get_web_intf(field_text(request.dst_if_name)),
                          request.dst_if_index);
}

// Whether the flow is to be denied, and then for which category.
int jorn_uf_ctx_get_web_policy(const uf_agent_reply &late, int32_t *category) {
    const web_policy *policy = policy_of(late.request);
    if (policy == nullptr || late.answer.status == URLF_STATUS_NO_LIST) {
        JORN_DEBUG("Policy Not found in async context\n");
        return LATE_ALLOW;
    }
    JORN_DEBUG("URL status = %d, cat_count = %d\n", late.answer.status, late.answer.category_count);
    const int32_t blocked = first_blocked_category(late.answer, *policy);
    if (blocked == NO_CATEGORY) {
        JORN_DEBUG("Policy Not found in async context\n");
        return LATE_ALLOW;
    }
    *category = blocked;
    JORN_DEBUG("Found policy for category %d\n", blocked);
    JORN_DEBUG("Policy found in async context and Denying\n");
    return LATE_DENY;
}

// Tells the platform what becomes of the flow. Returns its result.
int set_flow(const flow_key &key, bool denied, int32_t category) {
    av_qos action;
    memset(&action, 0xFF, sizeof action);
    action.deny = action.url_decided = denied ? 1 : 0;
    return psms_rflow_set_app(&key, &action, AV_ANY_APPLICATION, 0, static_cast<uint16_t>(category),
                              denied ? uint32_t{AV_VERDICT_DENY} : uint32_t{AV_SET_APP_ALLOW}, 0,
                              2);
}

} // namespace

int jorn_process_uf_agent_async_reply(const uf_agent_reply &late) {
    const urlf_answer &answer = late.answer;
    const flow_key &key = late.request.flow_key;
    daemon_state &state = jorn_state;
    JORN_DEBUG(" UF Resp, reputation%d Category: %d Status: %d cat count: %d, IP1, IP2 = %X, %X\n",
               answer.reputation, answer.categories[0], answer.status, answer.category_count,
               key.dst_ip_be, key.src_ip_be);
    if (answer.status == URLF_STATUS_UNREACHABLE)
        count_failure(state);
    else
        end_outage(state);
    if (state.fail_cnt != 0) {
        JORN_DEBUG("JORN UF_ASYNC IOCTL skipped with app %s, fail_cnt %d, reachable_flag %d\n", "",
                   static_cast<int>(state.fail_cnt), state.reachable_flag);
        return 0;
    }

    int32_t category = answer.categories[0];
    const bool denied = jorn_uf_ctx_get_web_policy(late, &category) == LATE_DENY;
    if (denied)
        JORN_DEBUG("Send DENY back to AV_core in IOCTL\n");
    const int result = set_flow(key, denied, category);
    if (!denied)
        JORN_DEBUG(
            "JORN UF_ASYNC IOCTL No web policy found ALLOW %s, fail_cnt %d, reachable_flag %d\n",
            AV_ANY_APPLICATION, static_cast<int>(state.fail_cnt), state.reachable_flag);
    if (result != 0)
        JORN_ERROR("JORN UF_ASYNC reply IOCTL failed fail_cnt %d, reachable_flag %d\n",
                   static_cast<int>(state.fail_cnt), state.reachable_flag);
    else
        JORN_DEBUG("JORN UF_ASYNC IOCTL Sent with app %s, fail_cnt %d, reachable_flag %d\n",
                   AV_ANY_APPLICATION, static_cast<int>(state.fail_cnt), state.reachable_flag);
    return 0;
}
