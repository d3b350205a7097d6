#include "avcore/flows/flow_life.h"

#include <netinet/tcp.h>

namespace avcore {

void note_life(flow_life &life, const frame_facts &frame, bool from_client, size_t size,
               int64_t time_us) {
    const bool opens = from_client && (frame.tcp_flags & (TH_SYN | TH_ACK)) == TH_SYN;
    if (life.begins == 0 || (opens && is_closed(life.ends)) ||
        time_us - life.last_us >= FLOW_IDLE_US) {
        ++life.begins;
        life.begun_us = time_us;
        life.before = life.counted;
        life.ends = 0;
    }
    life.last_us = time_us;
    const gate_direction way = from_client ? GATE_UP : GATE_DOWN;
    ++life.counted.packets[way];
    life.counted.bytes[way] += size;
    if ((frame.tcp_flags & TH_RST) != 0)
        life.ends |= GATE_RST;
    if ((frame.tcp_flags & TH_FIN) != 0)
        life.ends |= from_client ? GATE_FIN_UP : GATE_FIN_DOWN;
}

} // namespace avcore
