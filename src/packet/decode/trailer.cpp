#include "packet/decode/trailer.h"

byte_view frame_view(const uint8_t *bytes, uint32_t captured) {
    const size_t trailer_size = has_trailer(captured) ? sizeof(av_pkt_trailer) : 0;
    return {bytes, captured - trailer_size};
}

void trailer_view::copy_sides(pkt_ctx &ctx) const {
    const auto copy = [this](auto &to, size_t offset) { memcpy(&to, at_ + offset, sizeof to); };
    copy(ctx.dst_utp_id, offsetof(av_pkt_trailer, dst_utp_id));
    copy(ctx.src_utp_id, offsetof(av_pkt_trailer, src_utp_id));
    copy(ctx.trailer_word2, offsetof(av_pkt_trailer, trailer_word2));
    copy(ctx.trailer_word3, offsetof(av_pkt_trailer, trailer_word3));
    copy(ctx.dst_if_index, offsetof(av_pkt_trailer, dst_if_index));
    copy(ctx.src_if_index, offsetof(av_pkt_trailer, src_if_index));
    copy(ctx.dst_if_name, offsetof(av_pkt_trailer, dst_if_name));
    copy(ctx.src_if_name, offsetof(av_pkt_trailer, src_if_name));
}
