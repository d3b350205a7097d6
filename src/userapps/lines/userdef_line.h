// A user-defined application in the application-policy file: one line of the section. Its name is
// written as it is, so a separator inside it doesn't read back.
#pragma once

#include "core/text/line_format.h"
#include "userapps/records/apps.h"

inline constexpr size_t USERDEF_NAME_MAX = 63; // of the 65 that the record could hold

inline constexpr char USERDEFS_BEGIN[] = "[userdef]";
inline constexpr char USERDEFS_END[] = "[userdef end]";

extern const line_format<userdef_app> USERDEF_LINE;
