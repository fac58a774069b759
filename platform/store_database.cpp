#include "platform/store_database.h"

#include "platform/run_time_error.h"
#include "platform/sqlite_store.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <limits>
#include <thread>

namespace quenmark::platform {

namespace {

using namespace std::chrono_literals;

constexpr std::int64_t kSchemaVersion = 1;
constexpr std::int64_t kApplicationId = 0x514D5354;  // "QMST"

// A burst keeps writing for this long, or this many transactions, while a rival waits.
constexpr auto kTimeSlice = 1ms;
constexpr int kSliceTransactions = 64;
// When the queue has not moved on by then, somebody in it is taken to be stopped.
constexpr auto kLongestQueue = 50ms;

constexpr const char* kSchema = R"(
CREATE TABLE application(
  id     INTEGER PRIMARY KEY AUTOINCREMENT,
  folded BLOB NOT NULL UNIQUE,
  name   BLOB NOT NULL);
CREATE TABLE section(
  id          INTEGER PRIMARY KEY AUTOINCREMENT,
  application INTEGER NOT NULL REFERENCES application,
  folded      BLOB NOT NULL,
  name        BLOB NOT NULL,
  UNIQUE(application, folded));
CREATE TABLE entry(
  id      INTEGER PRIMARY KEY,
  section INTEGER NOT NULL REFERENCES section,
  folded  BLOB NOT NULL,
  name    BLOB NOT NULL,
  value   BLOB NOT NULL,
  UNIQUE(section, folded));
CREATE INDEX entry_order ON entry(section);
CREATE VIEW setting(application, section, key, value) AS
  SELECT CAST(a.name AS TEXT), CAST(s.name AS TEXT), CAST(e.name AS TEXT), CAST(e.value AS TEXT)
  FROM application a JOIN section s ON s.application = a.id JOIN entry e ON e.section = s.id
  ORDER BY a.id, s.id, e.id;
)";

[[noreturn]] void Fail(sqlite3* handle, int code) {
  const int kind = code & 0xFF;
  if (kind == SQLITE_BUSY || kind == SQLITE_LOCKED) {
    throw RunTimeError(kErrorStoreBusy, "The settings store stayed locked by another process for too long.");
  }
  if (kind == SQLITE_NOTADB || kind == SQLITE_CORRUPT) {
    throw RunTimeError(kErrorStoreFault, "The settings file is not a database or is damaged.");
  }
  throw RunTimeError(kErrorStoreFault, fmt::format("The settings store failed: {} ({}).",
                                                   handle ? sqlite3_errmsg(handle) : sqlite3_errstr(code), code));
}

// Makes missing folders, private to the user, and an empty private file.
void PreparePath(const std::string& path) {
  std::string folder = path.substr(0, path.rfind('/'));
  for (std::size_t end = 1; end <= folder.size(); ++end) {
    if (end < folder.size() && folder[end] != '/') continue;
    const std::string part = folder.substr(0, end);
    if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
      const int reason = errno;
      struct stat status {};
      if (stat(part.c_str(), &status) == 0) continue;  // an existing folder on a read-only or automounted file system
      throw RunTimeError(kErrorStoreFault, fmt::format("The folder {} of the settings store cannot be made: {}.", part,
                                                       std::strerror(reason)));
    }
  }
  struct stat status {};
  if (stat(path.c_str(), &status) == 0) {
    if (S_ISREG(status.st_mode)) return;
    throw RunTimeError(kErrorStoreFault, fmt::format("The settings store {} is not a file.", path));
  }
  // Closing this descriptor cannot drop SQLite's locks: the file is new, so nobody in this process has it open.
  const int descriptor = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (descriptor >= 0) {
    close(descriptor);
  } else if (errno != EEXIST) {
    throw RunTimeError(kErrorStoreFault,
                       fmt::format("The settings file {} cannot be made: {}.", path, std::strerror(errno)));
  }
}

// Takes away what group and others may do with a file of ours.
void MakePrivate(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 || (status.st_mode & 077) == 0 || status.st_uid != geteuid()) return;
  chmod(path.c_str(), status.st_mode & 0700);
}

}  // namespace

Statement::Statement(sqlite3* database, const char* sql) {
  sqlite3_stmt* statement = nullptr;
  const int code = sqlite3_prepare_v3(database, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
  m_statement.reset(statement);
  if (code != SQLITE_OK) Fail(database, code);
}

Statement& Statement::Bind(int index, std::int64_t number) {
  sqlite3_bind_int64(m_statement.get(), index, number);
  return *this;
}

Statement& Statement::Bind(int index, std::string_view bytes) {
  // A null pointer would bind NULL instead of an empty value.
  const char* data = bytes.empty() ? "" : bytes.data();
  const int code = sqlite3_bind_blob64(m_statement.get(), index, data, bytes.size(), SQLITE_STATIC);
  if (code != SQLITE_OK) Fail(sqlite3_db_handle(m_statement.get()), code);
  return *this;
}

bool Statement::Step() {
  const int code = sqlite3_step(m_statement.get());
  if (code == SQLITE_ROW) return true;
  const int result = sqlite3_reset(m_statement.get());
  if (code != SQLITE_DONE) Fail(sqlite3_db_handle(m_statement.get()), result);
  return false;
}

int Statement::Run() {
  if (Step()) Reset();
  return sqlite3_changes(sqlite3_db_handle(m_statement.get()));
}

std::string_view Statement::Bytes(int column) const {
  const auto* data = static_cast<const char*>(sqlite3_column_blob(m_statement.get(), column));
  const auto size = static_cast<std::size_t>(sqlite3_column_bytes(m_statement.get(), column));
  return data == nullptr ? std::string_view() : std::string_view(data, size);
}

std::optional<std::int64_t> SingleInteger(Statement& statement) {
  if (!statement.Step()) return std::nullopt;
  const std::int64_t number = statement.Integer(0);
  statement.Reset();
  return number;
}

StoreDatabase::StoreDatabase(const std::string& path, Clock& clock, std::chrono::milliseconds busyLimit)
    : m_clock(clock), m_busyLimit(busyLimit), m_waitLimit(busyLimit) {
  PreparePath(path);
  sqlite3* handle = nullptr;
  const int code = sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  m_handle.reset(handle);
  if (code != SQLITE_OK) {
    throw RunTimeError(kErrorStoreFault,
                       fmt::format("The settings file {} cannot be opened: {}.", path, sqlite3_errmsg(handle)));
  }
  sqlite3_extended_result_codes(handle, 1);
  sqlite3_busy_handler(handle, OnBusy, this);
  // A file that turns out not to be ours is not even checkpointed.
  sqlite3_db_config(handle, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  CheckOrCreate(path);
  sqlite3_db_config(handle, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
  for (const char* suffix : {"", "-wal", "-shm", "-turn"}) MakePrivate(path + suffix);
  Execute(
      "PRAGMA synchronous=NORMAL; PRAGMA wal_autocheckpoint=0; PRAGMA cache_size=-32768; PRAGMA secure_delete=FAST;"
      "PRAGMA journal_size_limit=67108864; PRAGMA temp_store=MEMORY; PRAGMA trusted_schema=OFF");
  MapIndex(path);
  m_begin.emplace(handle, "BEGIN IMMEDIATE");
  m_commit.emplace(handle, "COMMIT");
  m_rollback.emplace(handle, "ROLLBACK");
}

StoreDatabase::~StoreDatabase() = default;

void StoreDatabase::CheckOrCreate(const std::string& path) {
  try {
    const std::int64_t version = Query("PRAGMA user_version");
    const std::int64_t application = Query("PRAGMA application_id");
    if (version > kSchemaVersion) {
      throw RunTimeError(
          kErrorStoreFault,
          fmt::format(
              "The settings file {} was written by a newer version of this program (schema {}, this one knows {}).",
              path, version, kSchemaVersion));
    }
    const bool isNew = version == 0 && application == 0 && IsEmpty();
    if (!isNew && (version != kSchemaVersion || application != kApplicationId)) {
      throw RunTimeError(kErrorStoreFault,
                         fmt::format("The file {} is a database of another program, not a settings store.", path));
    }
    if (sqlite3_db_readonly(Handle(), "main") == 1) {
      throw RunTimeError(kErrorStoreFault, fmt::format("The settings file {} is not writable.", path));
    }
    m_turn.emplace(path + "-turn", m_clock);
    if (isNew) {
      Create(path);
    } else {
      Execute("PRAGMA journal_mode=WAL");
    }
  } catch (const RunTimeError& fault) {
    if (fault.Description().find(path) != std::string::npos) throw;
    throw RunTimeError(fault.Number(),
                       fmt::format("The settings file {} cannot be used. {}", path, fault.Description()));
  }
}

bool StoreDatabase::IsEmpty() {
  return Query("SELECT count(*) FROM sqlite_master") == 0;
}

void StoreDatabase::Create(const std::string& path) {
  // Processes that start together make the file one after the other: the change to WAL mode does not wait by itself.
  m_turn->Enter();
  for (auto waited = 0us; !m_turn->IsFirst() && waited < m_busyLimit; waited += 1ms) std::this_thread::sleep_for(1ms);
  for (auto waited = 0us;; waited += 1ms) {
    try {
      Execute("PRAGMA page_size=1024; PRAGMA journal_mode=WAL");
      break;
    } catch (const RunTimeError& fault) {
      if (fault.Number() != kErrorStoreBusy || waited >= m_busyLimit) throw;
      std::this_thread::sleep_for(1ms);
    }
  }
  Execute("BEGIN IMMEDIATE");
  if (IsEmpty()) {
    Execute(kSchema);
    Execute(fmt::format("PRAGMA application_id={}; PRAGMA user_version={}", kApplicationId, kSchemaVersion).c_str());
  }
  Execute("COMMIT");
  m_turn->Leave();
  if (Query("PRAGMA user_version") != kSchemaVersion || Query("PRAGMA application_id") != kApplicationId) {
    throw RunTimeError(kErrorStoreFault, fmt::format("The file {} has just been made by another program.", path));
  }
}

void StoreDatabase::Execute(const char* sql) {
  const int code = sqlite3_exec(Handle(), sql, nullptr, nullptr, nullptr);
  if (code != SQLITE_OK) Fail(Handle(), code);
}

std::int64_t StoreDatabase::Query(const char* sql) {
  Statement statement(Handle(), sql);
  return SingleInteger(statement).value_or(0);
}

void StoreDatabase::MapIndex(const std::string& path) {
  constexpr int kRegionBytes = 32768;         // the size SQLite maps the index in
  Query("SELECT count(*) FROM application");  // a first read opens the log
  sqlite3_file* file = nullptr;
  volatile void* region = nullptr;
  const int code = sqlite3_file_control(Handle(), "main", SQLITE_FCNTL_FILE_POINTER, &file);
  if (code != SQLITE_OK || file == nullptr || file->pMethods->iVersion < 2 ||
      file->pMethods->xShmMap(file, 0, kRegionBytes, 0, &region) != SQLITE_OK || region == nullptr) {
    throw RunTimeError(kErrorStoreFault,
                       fmt::format("The settings file {} is on a file system that processes cannot share.", path));
  }
  m_index = static_cast<const volatile std::uint32_t*>(region);
}

StoreDatabase::Mark StoreDatabase::CurrentMark() const {
  Mark mark;
  for (std::size_t i = 0; i < kHeaderWords; ++i) mark[i] = m_index[i];
  return mark;
}

bool StoreDatabase::SeesForeignChange() {
  // The header changes with every commit. A half-written one is taken for a change now and again at the next look; the
  // reads that follow go through SQLite, which waits for a whole one.
  const Mark mark = CurrentMark();
  if (mark == m_seen) return false;
  m_seen = mark;
  return true;
}

void StoreDatabase::BeginWrite(std::chrono::milliseconds busyLimit) {
  GiveWay();
  const WaitToWrite wait(*this, busyLimit);
  m_begin->Run();
}

void StoreDatabase::CommitWrite(bool changed) {
  m_commit->Run();
  // A commit counts the change counter up by one. More than that: somebody else has committed since.
  const Mark mark = CurrentMark();
  if (changed && mark[kChangeCounter] == m_seen[kChangeCounter] + 1) m_seen = mark;
}

void StoreDatabase::RollBack() {
  if (sqlite3_get_autocommit(Handle()) != 0) return;  // SQLite has done it itself
  m_rollback->Run();
}

// Queues behind a waiting rival once the time slice is over.
void StoreDatabase::GiveWay() {
  if (!m_turn->RivalWaits()) {
    m_rivalSince.reset();
    return;
  }
  const MonotonicTime now = m_clock.Monotonic();
  if (!m_rivalSince) {
    m_rivalSince = now;
    m_transactionsBeforeRival = 0;
  }
  if (now - *m_rivalSince < kTimeSlice && ++m_transactionsBeforeRival < kSliceTransactions) return;
  m_rivalSince.reset();
  m_turn->Enter();
  AwaitTurn();
}

// Waits until the own place in the queue is the first, but no longer than a living queue could take.
void StoreDatabase::AwaitTurn() {
  auto waited = 0us;
  for (int tries = 0; !m_turn->IsFirst(); ++tries) {
    waited += Pause(tries);
    if (waited >= kLongestQueue) return m_turn->Overlook();
  }
}

// Transactions are short, so who waits looks again at once a few times before it sleeps. Returns the time it took,
// roughly.
std::chrono::microseconds StoreDatabase::Pause(int tries) {
  constexpr int kYields = 20;
  constexpr int kShortNaps = 200;
  constexpr auto kTimerSlack = 60us;  // by which the kernel lets a sleep be longer
  if (tries < kYields) {
    std::this_thread::yield();
    return 1us;
  }
  const auto nap = tries < kShortNaps ? 50us : 500us;
  std::this_thread::sleep_for(nap);
  return nap + kTimerSlack;
}

// Called by SQLite when a lock is taken; answers whether to try again.
int StoreDatabase::OnBusy(void* context, int count) {
  auto& self = *static_cast<StoreDatabase*>(context);
  if (count == 0) self.m_waited = 0us;
  if (self.m_waited >= self.m_waitLimit) return 0;
  if (self.m_waitsToWrite) {
    self.m_turn->Enter();
    self.AwaitTurn();
  }
  self.m_waited += Pause(count);
  return 1;
}

void StoreDatabase::Checkpoint(std::uint32_t restartPages) {
  // Each pass takes less time than the one before, so fewer pages arrive during it.
  constexpr int kPasses = 4;
  constexpr int kFewPages = 256;
  int logged = 0;
  int copied = 0;
  for (int pass = 0; pass < kPasses; ++pass) {
    const int code = sqlite3_wal_checkpoint_v2(Handle(), nullptr, SQLITE_CHECKPOINT_PASSIVE, &logged, &copied);
    if (code != SQLITE_OK || logged - copied < kFewPages) break;
  }
  // When a long-lived reader holds the log, making writers wait would be in vain.
  const bool held = logged - copied > logged / 2;
  if (logged < 0 || held || LogPages() < restartPages) return;
  const WaitToWrite wait(*this, 10ms);
  sqlite3_wal_checkpoint_v2(Handle(), nullptr, SQLITE_CHECKPOINT_RESTART, nullptr, nullptr);
}

}  // namespace quenmark::platform
