#include "packet/decode/trailer.h"

#include "core/base/log.h"
#include "core/text/text.h"

namespace {

// The detection step whose first act this is gives the lines their name.
constexpr char DETECT_UTP[] = "jorn_detect_pkt_utp";

} // namespace

byte_view frame_view(const uint8_t *bytes, uint32_t captured) {
    const size_t trailer_size = has_trailer(captured) ? sizeof(av_pkt_trailer) : 0;
    return {bytes, captured - trailer_size};
}

bool read_trailer(pkt_ctx &ctx, const uint8_t *bytes, uint32_t captured, av_pkt_trailer &trailer) {
    JORN_DEBUG_AS(DETECT_UTP, "cap len %d and len %d\n", static_cast<int>(captured),
                  static_cast<int>(sizeof trailer));
    if (!has_trailer(captured)) {
        JORN_DEBUG_AS(DETECT_UTP, "There is conflict in received packet len\n");
        return false;
    }
    memcpy(&trailer, bytes + captured - sizeof trailer, sizeof trailer);
    JORN_DEBUG_AS(DETECT_UTP,
                  "The flow id is %d, dpi_retry = %d and url retry %d, filter type %d\n",
                  static_cast<int>(trailer.flow_id), trailer.dpi_retry, trailer.url_retry,
                  static_cast<int>(trailer.filter_type));

    ctx.dst_utp_id = trailer.dst_utp_id;
    ctx.src_utp_id = trailer.src_utp_id;
    ctx.trailer_word2 = trailer.trailer_word2;
    ctx.trailer_word3 = trailer.trailer_word3;
    ctx.dst_if_index = trailer.dst_if_index;
    ctx.src_if_index = trailer.src_if_index;
    memcpy(ctx.src_if_name, trailer.src_if_name, sizeof ctx.src_if_name);
    memcpy(ctx.dst_if_name, trailer.dst_if_name, sizeof ctx.dst_if_name);
    JORN_DEBUG_AS(
        DETECT_UTP, "The received indexes are SRC: %d %s, DST: %d %s\n",
        static_cast<int>(ctx.src_if_index), printable_text(field_text(ctx.src_if_name)).c_str(),
        static_cast<int>(ctx.dst_if_index), printable_text(field_text(ctx.dst_if_name)).c_str());
    return true;
}
