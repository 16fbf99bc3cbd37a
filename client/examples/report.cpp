// The smallest application that reports: one session, one event.
//
//   report CLIENT-TYPE [ADDRESS]
//
// It must be entitled like any client. Exit codes: 0 reported, 1 not, 2 wrong usage.

#include <cstdlib>
#include <iostream>

#include "zunreporting/ZunReporting.h"

using zunreporting::ReportingSession;

namespace {

int failed(const std::string& error) {
  std::cerr << "report: " << error << '\n';
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "usage: report CLIENT-TYPE [ADDRESS]\n";
    return 2;
  }
  const auto connected = ReportingSession::connect(argc > 2 ? argv[2] : ReportingSession::kDefaultAddress);
  if (!connected) return failed(connected.error);
  ReportingSession& session = **connected.value;

  zunreporting::SessionInfo info;
  info.sessionID = 1;
  info.clientType = std::atoi(argv[1]);
  const auto set = session.setSessionInfo(info, zunreporting::UserInfo{"report", "examples"});
  if (!set) return failed(set.error);

  const auto started = session.startConfig();
  if (!started) return failed(started.error);
  if (!*started.value) return failed("there is no storebag for this client type: nothing would be reported");

  zunreporting::Event event;
  event.category = 2;
  event.type = 7;
  event.payload = {{"page", "settings"}, {"seconds", 1.5}, {"touches", 3}};
  const auto sent = session.sendMessage(event);
  if (!sent) return failed(sent.error);

  // What was batched is posted when the session ends, by this or by the end of the process.
  const auto finished = session.finishSessionGracefully();
  return finished ? 0 : failed(finished.error);
}
