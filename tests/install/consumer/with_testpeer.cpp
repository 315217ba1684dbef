// A test of an application: with_testpeer DOMAIN. A server that admits everybody, and then one that goes away.
#include <cstdlib>
#include <iostream>
#include <qlk/testpeer.hpp>
#include <quillon.hpp>
#include <stdexcept>
#include <string>

namespace {

QUILLON_STATUS connect(testpeer::CertificateAuthority &authority, const testpeer::ScriptedPeer &peer, const std::string &domain) {
  const auto alice = authority.client("alice", domain);
  const auto config = quillon::config::create({.hosts = {peer.host()},
                                               .user = "alice",
                                               .certificate = alice.certificate,
                                               .key = alice.key,
                                               .server_ca = authority.certificate()})
                          .value();
  auto connection = quillon::connection::create(config).value();
  const QUILLON_STATUS status = connection.connect().status();
  connection.disconnect().value();
  return status;
}

void expect(QUILLON_STATUS expected, QUILLON_STATUS status) {
  if (status != expected) throw std::runtime_error("connect: " + std::string(quillon::text_of(status)));
}

}  // namespace

int main(int argc, char **argv) try {
  if (argc != 2) return 2;
  quillon_log_set_level(QUILLON_LOG_NONE);
  testpeer::CertificateAuthority authority;
  testpeer::Options options;
  options.certificate = authority.server(argv[1]);
  options.client_authority = authority.certificate();
  options.act_as_controller = true;
  options.domain = argv[1];
  expect(QUILLON_STATUS_OK, connect(authority, testpeer::ScriptedPeer(options), argv[1]));
  options.faults.emplace(testpeer::Stage::sasl, testpeer::Fault::close());
  expect(QUILLON_STATUS_CONNECTION_ERROR, connect(authority, testpeer::ScriptedPeer(options), argv[1]));
  return EXIT_SUCCESS;
} catch (const std::exception &failure) {
  std::cerr << "consumer: " << failure.what() << '\n';
  return EXIT_FAILURE;
}
