// Namespaces of a process of the tests, so that it reads and writes nothing of the machine.
#pragma once

namespace harness {

// Moves this process into a mount namespace of its own and into those that `kinds` (CLONE_NEW...) names, an ordinary
// user into a user namespace, too, in which it is root. Mounts made there stay there. False, with errno, where the
// machine does not permit it. Call it before there are threads.
bool enter_namespaces(int kinds = 0);

}  // namespace harness
