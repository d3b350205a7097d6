// Settling: the work on user-defined and port-service applications that depends on the
// configuration only.
//
// Criteria, the port index and the order of the names are settled with every change of the
// definitions or the list, which the functions of userdef.h and port_service.h see to; whoever
// writes to the tables in another way calls settle_userapps() afterwards. Which applications a
// UTP's ARC policy lists is settled when the first packet of that UTP needs it after a change: the
// policy's 64 rules are looked up among the sorted names, so that a packet waits for the rules of
// two policies and never for those of all. The order of the list plays no part in it.
//
// The packet path decides by this; the log has the walk of the tables (walk.h).
#pragma once

#include "userapps/records/settled.h"

void settle_userapps();

// The settlement as it stands; settles first where nothing ever did.
const settled_apps &settled();

// The ARC policy of a UTP, or none.
const arc_policy *arc_policy_of(uint32_t utp_id);

// The applications that may name a packet on behalf of one of its UTPs: those that the UTP's ARC
// policy lists as "User Defined", or all of them when it has no policy.
class allowed_apps {
public:
    explicit allowed_apps(const app_attachment *attachment) : attachment_(attachment) {}

    bool has_port_app(unsigned place) const {
        const unsigned number = USERDEF_APPS_MAX + place;
        return attachment_ == nullptr ||
               (attachment_->attached[number / 64] >> number % 64 & 1) != 0;
    }
    uint32_t userdef_apps() const { // a bit each
        return attachment_ == nullptr ? ~uint32_t{0}
                                      : static_cast<uint32_t>(attachment_->attached[0]);
    }

private:
    const app_attachment *attachment_; // none: no policy restricts them
};

allowed_apps allowed_for(uint32_t utp_id);
