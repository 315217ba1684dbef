// libqlk for C++20: the objects of quillon.h as types that own them, with std::function handlers, std::string_view, std::chrono
// and XML that is built and read in an expression. A header-only layer: whatever it does is done by quillon.h, whose comments
// hold here too, and each object gives its handle() for what is not wrapped: the log, the library's start and end, strings and
// lists.
//
//   auto config = quillon::config::create({.hosts = {"127.0.0.1:5222"}, .user = "alice", .certificate = "alice.pem",
//                                          .key = "alice.key", .server_ca = "ca.pem"}).value();
//   auto connection = quillon::connection::create(config).value();
//   auto weather = quillon::capability::create("urn:weather", "Weather").value();
//   connection.on_notification("{urn:weather}report", [](quillon::xml::view report) {
//     show(report.find("temperature").text());
//   }).value();
//   connection.connect().value();
//   weather.subscribe(connection).value();
//
// What holds for all of it:
//
// Errors      Calls return quillon::result: a value, or the status of quillon.h that says why there is none. value() throws
//             quillon::error for those who want it. Nothing else throws; with -fno-exceptions value() aborts. An object from
//             which was moved is empty: its calls return QUILLON_STATUS_INVALID_ARGS.
// Ownership   Objects are moved, not copied, and end what they own. What one object needs of another is shared, or its comment
//             says what has to outlive what. Declared in the order config, capabilities, connection, reconnection, they end in
//             the right one.
// Arguments   Texts are UTF-8 without a zero in them, and copied; elements that a call takes by value are consumed.
// Threads     As in quillon.h. Handlers run on threads of the library, and what they throw is logged and goes no further.
#ifndef QUILLON_HPP
#define QUILLON_HPP

#include <quillon.h>

#include <quillon/async.hpp>
#include <quillon/bulk_download.hpp>
#include <quillon/capability.hpp>
#include <quillon/config.hpp>
#include <quillon/connection.hpp>
#include <quillon/result.hpp>
#include <quillon/statistics.hpp>
#include <quillon/xml.hpp>

#endif
