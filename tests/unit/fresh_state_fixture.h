// A test with a fresh state block and platform, and ARC policies that go with it.
#pragma once

#include "support/fresh_state.h"
#include "support/policies.h"

#include <gtest/gtest.h>

class FreshState : public testing::Test {
protected:
    void SetUp() override { fresh_state(); }
    void TearDown() override { jorn_process_arc_policy_flush(); }
};
