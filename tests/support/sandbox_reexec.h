#ifndef TESTS_SUPPORT_SANDBOX_REEXEC_H
#define TESTS_SUPPORT_SANDBOX_REEXEC_H

// Tests that touch the fixed segment key, queue name or marker paths run inside
// scripts/sandbox.sh: this re-executes the test binary there before gtest starts, unless it is
// already inside or gtest only lists the tests.
void reexecInSandbox();

// Put once in a test file whose tests need the sandbox.
#define AIPQ_TESTS_RUN_IN_SANDBOX() static const bool aipqInSandbox_ = (reexecInSandbox(), true)

#endif
