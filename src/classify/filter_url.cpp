#include "classify/detect.h"
#include "classify/dns_app.h"
#include "classify/trailer_step.h"
#include "classify/web_ports.h"
#include "core/base/log.h"
#include "core/base/record_bytes.h"
#include "core/base/settings.h"
#include "core/state/state.h"
#include "core/text/ipv4_text.h"
#include "core/text/text.h"
#include "platform/psm.h"
#include "webfilter/decision.h"

#include <cstring>
#include <sys/time.h>

namespace {

using std::string_view;

constexpr size_t DOMAIN_MAX = sizeof(urlf_request::domain) - 1;
static_assert(sizeof(urlf_reply) == sizeof(pkt_ctx::uf_reply));

// No name at all is known: the server goes by its address.
bool name_by_server(pkt_ctx &ctx) {
    const uint32_t server = is_web_port(ctx.dst_port) ? ctx.dst_ip : ctx.src_ip;
    if (server == 0)
        return false;
    copy_text(ctx.app_name, ipv4_text(server).c_str());
    JORN_DEBUG_AS(DETECT_UTP, "*** Server IP %s (port %d) to be used for web-category\n",
                  ctx.app_name, ctx.dst_port);
    return true;
}

// The domain to ask for, in app_name: the kernel's, an earlier step's, the cache's, else the
// server's address. Returns false for a server without an address: nobody knows what to ask for.
bool choose_domain(pkt_ctx &ctx, string_view kernel_domain) {
    if (!kernel_domain.empty()) {
        JORN_DEBUG_AS(DETECT_UTP, "Domain name from kernel = %s\n",
                      printable_text(kernel_domain).c_str());
        copy_text(ctx.app_name, kernel_domain.substr(0, DOMAIN_MAX));
    } else if (jorn_detect_pkt_dns_app(&ctx, 1) == JORN_DETECT_MATCH) {
        JORN_DEBUG_AS(DETECT_UTP, " Domain retrieved from cache %s and org_app %s \n",
                      printable_text(ctx.app_name).c_str(), printable_text(ctx.orig_app).c_str());
    } else {
        return name_by_server(ctx);
    }
    return true;
}

// All hosts of the video CDN are asked for as one domain.
void merge_video_hosts(pkt_ctx &ctx) {
    const string_view cdn = field_text(jorn_settings.video_stream_domain);
    if (cdn.empty() || !contains_ignoring_case(field_text(ctx.app_name), cdn))
        return;
    JORN_DEBUG_AS(DETECT_UTP, "%s is asked for as %s\n", printable_text(ctx.app_name).c_str(),
                  jorn_settings.video_stream_domain);
    copy_text(ctx.app_name, cdn);
}

urlf_request category_request(const pkt_ctx &ctx) {
    urlf_request request;
    zero_record(request);
    request.request_type = URLF_REQUEST_CATEGORY;
    request.flow_key = ctx.flow_key;
    request.dst_if_index = ctx.dst_if_index;
    request.src_if_index = ctx.src_if_index;
    request.trailer_word2 = ctx.trailer_word2;
    request.trailer_word3 = ctx.trailer_word3;
    memcpy(request.dst_if_name, ctx.dst_if_name, sizeof request.dst_if_name);
    memcpy(request.src_if_name, ctx.src_if_name, sizeof request.src_if_name);
    copy_text(request.domain, field_text(ctx.app_name));
    request.domain_length = static_cast<uint32_t>(field_text(request.domain).size());
    return request;
}

// The agent's answer to a request; zeros where the agent left out a part. Returns whether it
// answered.
bool ask_agent(const urlf_request &request, urlf_reply &reply) {
    zero_record(reply);
    if (jorn_settings.debug == 0)
        return psm_urlfilter_get_category(&request, &reply) >= 0;
    timeval before = {};
    timeval after = {};
    timeval taken = {};
    gettimeofday(&before, nullptr);
    if (psm_urlfilter_get_category(&request, &reply) < 0)
        return false;
    gettimeofday(&after, nullptr);
    timersub(&after, &before, &taken);
    JORN_DEBUG_AS(DETECT_UTP, "Time taken by IPC %ld.%06ld\n", static_cast<long>(taken.tv_sec),
                  static_cast<long>(taken.tv_usec));
    return true;
}

// A category that can be decided by; 0 is one while the agent reaches its server.
after_step take_category(pkt_ctx &ctx, int32_t category) {
    if (category > 0 || (category == 0 && jorn_state.reachable_flag == 0)) {
        ctx.app_cat_id = static_cast<uint16_t>(category);
        return after_step::matched;
    }
    JORN_DEBUG_AS(DETECT_UTP,
                  "Invalid category or Webroot is not reachable. fallaback to ARC if its "
                  "enabled\n");
    return after_step::next;
}

} // namespace

after_step filter_url(pkt_ctx &ctx, const trailer_view &trailer) {
    ctx.url_filter = 1;
    if (jorn_get_web_policy_cfg(&ctx) != WEB_FOUND)
        return after_step::next;
    if (!choose_domain(ctx, trailer.kernel_domain()))
        return after_step::undecided;
    merge_video_hosts(ctx);
    const urlf_request request = category_request(ctx);
    JORN_DEBUG_AS(DETECT_UTP, " Domain name len = %d\n", static_cast<int>(request.domain_length));
    if (request.domain_length == 0)
        return after_step::undecided;
    if (jorn_check_white_black_list(&ctx, field_text(ctx.app_name)) == WEB_FOUND)
        return after_step::matched;
    JORN_DEBUG_AS(DETECT_UTP, "White/black list is not configured for %s domain\n",
                  printable_text(ctx.app_name).c_str());

    urlf_reply reply;
    if (!ask_agent(request, reply))
        return after_step::next;
    JORN_DEBUG_AS(DETECT_UTP, "category: %d status: %d URL: %s url retry: %d Flow id: %d\n",
                  reply.answer.categories[0], reply.answer.status,
                  printable_text(request.domain).c_str(), trailer.url_retry(),
                  static_cast<int>(trailer.flow_id()));
    copy_record(ctx.uf_reply, reply);
    copy_text(ctx.web_domain, field_text(ctx.app_name).substr(0, DOMAIN_MAX));
    return take_category(ctx, reply.answer.categories[0]);
}
