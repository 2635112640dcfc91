// diag-tester: the workshop tester. Plays the diagnostic master on orvane's version-12 LUM
// control service as process "diag-tester" of the host configuration.
//
//   diag-tester [OPTIONS] dm-update       a whole domain update through orvane
//   diag-tester [OPTIONS] watch           follows the domainUpdateSessionState field
//   diag-tester [OPTIONS] routine-start   a local update started through the diagnostic routine
//   diag-tester [OPTIONS] measure         the update state and timestamps, read out
//
// Exit status: 0 success, 1 update failed or refused, 2 usage, 3 orvane not found in time.

#include <signal.h>

#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "minfw/str.h"
#include "tester.h"

namespace {

using kel::vxp3::minfw::parseInteger;

using namespace orv::tester;

int usage() {
  std::cerr << "usage: diag-tester [OPTIONS] dm-update | watch | routine-start | measure\n"
               "  --config FILE        host configuration (default ORVANE_MIDDLEWARE_CONFIG or "
               "config/host.json)\n"
               "  --instance ID        instance of orvane's v12 service (default 1)\n"
               "  --find-s N           seconds to look for orvane (default 20)\n"
               "  --verbose            middleware log lines down to debug\n"
               " dm-update:\n"
               "  --access-id TEXT     client id of the session (default DIAG-TESTER)\n"
               "  --session N          vehicleRepairInstructionID (default 100)\n"
               "  --order TEXT         updateOrderLink (default ORDER-DEMO)\n"
               "  --base-url URL       download base and URL answers (default "
               "http://127.0.0.1:29214/medium)\n"
               "  --manifest NAME      update manifest, repeatable (default domain-app.json)\n"
               "  --diag-address N     ECU diagnostic address, repeatable (default 0x1A01)\n"
               "  --timeout-s N        limit for the whole update (default 300)\n"
               " routine-start:\n"
               "  --order TEXT         the update order, at most 116 bytes (default ORDER-DEMO)\n"
               "  --timeout-s N        limit for the whole update (default 300)\n"
               " watch:\n"
               "  --seconds N          stop after N seconds (default: until interrupted)\n";
  return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  std::vector<std::string> manifests;
  std::vector<uint16_t> addresses;
  std::vector<std::string> words;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    int64_t n = 0;
    bool ok = true;
    if (arg == "--verbose") {
      options.verbose = true;
      continue;
    }
    if (arg.rfind("--", 0) != 0) {
      words.push_back(arg);
      continue;
    }
    if (!value)
      return usage();
    ++i;
    if (arg == "--config")
      options.configPath = value;
    else if (arg == "--instance")
      options.instance = value;
    else if (arg == "--find-s" && (ok = parseInteger(value, 1, 3600, &n)))
      options.findS = n;
    else if (arg == "--access-id")
      options.accessId = value;
    else if (arg == "--session" && (ok = parseInteger(value, 0, 65535, &n)))
      options.session = static_cast<uint16_t>(n);
    else if (arg == "--order")
      options.order = value;
    else if (arg == "--base-url")
      options.baseUrl = value;
    else if (arg == "--manifest")
      manifests.push_back(value);
    else if (arg == "--diag-address" && (ok = parseInteger(value, 0, 65535, &n)))
      addresses.push_back(static_cast<uint16_t>(n));
    else if (arg == "--timeout-s" && (ok = parseInteger(value, 1, 86400, &n)))
      options.timeoutS = n;
    else if (arg == "--seconds" && (ok = parseInteger(value, 1, 86400 * 7, &n)))
      options.seconds = n;
    else
      ok = false;
    if (!ok)
      return usage();
  }
  const std::string command = words.size() == 1 ? words[0] : std::string();
  const bool dm = command == "dm-update" || command == "watch";
  if (!dm && command != "routine-start" && command != "measure")
    return usage();
  if (!manifests.empty())
    options.manifests = manifests;
  if (!addresses.empty())
    options.diagAddresses = addresses;

  // Every thread started from here on inherits the blocked signals; the command takes them.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);

  // dm-update and watch use only orvane's service, so a watch can run beside an update; the
  // other two offer the tester's services (one such tester at a time).
  Tester tester(options, std::cout, std::cerr);
  int status = tester.start();
  if (status == kExitOk)
    status = dm ? tester.findDiagnosticMaster() : tester.offerServices();
  if (status != kExitOk)
    return status;
  if (command == "dm-update")
    return tester.dmUpdate();
  if (command == "watch")
    return tester.watch();
  return command == "routine-start" ? tester.routineStart() : tester.measure();
}
