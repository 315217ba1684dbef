// libqlk-testpeer: servers for the tests of programs that join a message grid, or speak XMPP at all, and that download over
// HTTPS, within the test's own process. They are correct by default, and wrong in whatever way they are told: silent, late or
// gone at any point, with answers that are no answers, hostile XML, and every kind of bad certificate.
//
// Nothing here takes part in a product: the library is for tests only. It stands on OpenSSL and expat and needs neither libqlk
// nor a framework for tests. C++20; one static library, so there is no promise about its binary interface.
#pragma once

#include <qlk/testpeer/certificates.hpp>
#include <qlk/testpeer/connection.hpp>
#include <qlk/testpeer/deaf_port.hpp>
#include <qlk/testpeer/element.hpp>
#include <qlk/testpeer/hostile.hpp>
#include <qlk/testpeer/https_peer.hpp>
#include <qlk/testpeer/peer.hpp>
#include <qlk/testpeer/script.hpp>
#include <qlk/testpeer/wait.hpp>
