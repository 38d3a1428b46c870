#pragma once

/// Moves the calling process (before it starts any thread) into a network namespace of its own
/// with its loopback up, so that tests can bind 127.0.0.1:80 whatever holds it outside. Needs
/// root (or CAP_SYS_ADMIN); false, with the shared network left as it is, where that is refused.
bool enterPrivateNetwork();

/// Runs enterPrivateNetwork() before main(), while the process has one thread.
#define SUC_PRIVATE_NETWORK_BEFORE_MAIN                                                            \
    namespace {                                                                                    \
    [[maybe_unused]] const bool s_privateNetwork = enterPrivateNetwork();                          \
    }
