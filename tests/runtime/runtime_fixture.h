// Shared fixture of the runtime tests: a freshly initialised library with
// logging off (20: 15 slots, 30 lock entries), terminated after each test.
#pragma once

#include "runtime/library_state.h"
#include "support/library.h"

namespace kestrel::test {

class RuntimeTest : public LibraryTest {
 protected:
  RuntimeTest() : LibraryTest(20) {}
};

}  // namespace kestrel::test
