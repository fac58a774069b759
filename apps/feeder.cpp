// The feeder: one process per data provider, told everything through the settings store.
#include "feeder/main_form.h"
#include "platform/files.h"
#include "platform/instance_lock.h"
#include "platform/program_code.h"
#include "platform/run_time_error.h"
#include "platform/sqlite_store.h"
#include "platform/stop_signals.h"
#include "providers/http_requests.h"
#include "tls/certificate_services.h"
#include "websocket/tls_transport.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace {

using namespace quenmark;

// By then the connections stand and every kind of work has been done once.
constexpr std::chrono::seconds kStartUpTime{10};

int Run(platform::Log& log) {
  platform::SystemClock clock;
  platform::MessageLoop loop(clock);
  // Before the first thread is started. It is a message of the loop, which nothing runs before the context is there.
  providers::Context* running = nullptr;
  const platform::StopSignals stop(loop, [&running] { running->EndProgram("stopped by a signal"); });
  const std::string storePath = platform::StorePath();
  const auto store = platform::SqliteStore::Open(storePath, clock);
  store->AttachTo(loop);
  store->OnFault([&log](const std::string& description) { log.Error("store: {}", description); });
  const auto lock = platform::InstanceLock::TryAcquire(platform::ExecutablePath(), storePath);
  if (!lock) {
    log.Info("ending: another instance runs");
    return 0;
  }

  const auto http = platform::MakeHttpClient(loop, providers::BuildUserAgent());
  platform::SystemProcessList processes(loop);
  providers::Context context{.store = *store,
                             .loop = loop,
                             .clock = clock,
                             .http = *http,
                             .processes = processes,
                             .log = log,
                             .programFolder = platform::ProgramFolder(),
                             .endProcess = [] { std::_Exit(0); }};
  running = &context;
  const auto certificates = tls::MakeCertificateServices(loop);
  feeder::frmPBF form(context, websocket::MakeWebsocketServices(loop, certificates), certificates);
  form.Form_Load();
  loop.CallAt(0, clock.Monotonic() + kStartUpTime, platform::UnmapUsedCode);
  loop.Run();
  return 0;
}

}  // namespace

int main(int argc, char**) {
  if (argc > 1) {
    std::fputs("feeder takes no arguments\n", stderr);
    return 2;
  }
  platform::Log log(platform::ParseLogLevel(platform::Environment("FEEDER_LOG")));
  try {
    return Run(log);
  } catch (const std::exception& error) {
    log.Error("{}", error.what());
    return 1;
  }
}
