#ifndef TESTS_SUPPORT_SANDBOX_REEXEC_H
#define TESTS_SUPPORT_SANDBOX_REEXEC_H

// Re-executes the test binary inside scripts/sandbox.sh before gtest starts, unless it is
// already inside, gtest only lists the tests or the script is not there.
void reexecInSandbox();

#endif
