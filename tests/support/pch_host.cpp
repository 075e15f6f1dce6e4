// The host of the suites' precompiled header (see zevd_add_test): it has
// nothing of its own, and its main is GoogleTest's.
