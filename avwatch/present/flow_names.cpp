#include "avwatch/present/flow_names.h"

#include <string>

namespace avwatch {

flow_record with_names(flow_record flow, names_kept names) {
    if (names == names_kept::full)
        return flow;
    flow.application = reduced(classify(flow.application, flow.why.named_by), names).text;
    flow.host = reduced({flow.host, true}, names).text;
    flow.why.name = reduced({flow.why.name, true}, names).text;
    // avcore's words begin with the name.
    const size_t behind = flow.why.text.rfind(", named by ");
    flow.why.text = behind != std::string::npos ? flow.application + flow.why.text.substr(behind)
                                                : std::string();
    return flow;
}

} // namespace avwatch
