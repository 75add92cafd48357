// PRMUntilCatch is a template (the catch handler may take any handler form); this
// unit checks that its header stands on its own.

#include "nk/promise/promise_until.hpp"
