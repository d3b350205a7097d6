#include "core/rights.h"

void give_up_rights() {}
