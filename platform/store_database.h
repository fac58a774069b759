// One connection to the store's SQLite file: opening and checking it, statements, transactions that wait their turn,
// and the mark by which a change of another process is noticed.
#pragma once

#include "platform/clock.h"
#include "platform/store_turn.h"

#include <sqlite3.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace quenmark::platform {

// A prepared statement. Faults of SQLite are RunTimeErrors; the statement is reset before they are thrown.
class Statement {
 public:
  Statement(sqlite3* database, const char* sql);

  // Numbered from 1. Bytes must stay in place until the statement is reset.
  Statement& Bind(int index, std::int64_t number);
  Statement& Bind(int index, std::string_view bytes);
  // True when there is a row; after the last one the statement is reset.
  bool Step();
  // Runs a statement without rows; returns how many rows it changed.
  int Run();
  void Reset() { sqlite3_reset(m_statement.get()); }
  // Columns of the row, numbered from 0; bytes are valid until the next step or reset.
  std::int64_t Integer(int column) const { return sqlite3_column_int64(m_statement.get(), column); }
  std::string_view Bytes(int column) const;

 private:
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };
  std::unique_ptr<sqlite3_stmt, Finalize> m_statement;
};

// Resets a statement whatever happens between its rows.
class ResetAtEnd {
 public:
  explicit ResetAtEnd(Statement& statement) : m_statement(statement) {}
  ~ResetAtEnd() { m_statement.Reset(); }
  ResetAtEnd(const ResetAtEnd&) = delete;
  ResetAtEnd& operator=(const ResetAtEnd&) = delete;

 private:
  Statement& m_statement;
};

// The first column of a statement's single row; resets the statement. Nothing when there is no row.
std::optional<std::int64_t> SingleInteger(Statement& statement);

class StoreDatabase {
 public:
  // Opens an existing store or creates one. `path` is absolute. Waits at most `busyLimit` for another process.
  StoreDatabase(const std::string& path, Clock& clock, std::chrono::milliseconds busyLimit);
  ~StoreDatabase();
  StoreDatabase(const StoreDatabase&) = delete;
  StoreDatabase& operator=(const StoreDatabase&) = delete;

  sqlite3* Handle() const { return m_handle.get(); }

  // Begins a transaction as a writer. Between two transactions of a burst it lets a waiting rival go first.
  void BeginWrite(std::chrono::milliseconds busyLimit);
  // Ends it. `changed`: some row was written. A failure leaves the transaction open.
  void CommitWrite(bool changed);
  void RollBack();

  // True when another process has committed since the last call; also at the first call.
  bool SeesForeignChange();
  // Pages in the write-ahead log.
  std::uint32_t LogPages() const { return m_index[kLogPages]; }
  // Copies the log's pages to the database file without blocking writers, and when the log stays longer than
  // `restartPages` makes writers wait for a moment so that the log can start over.
  void Checkpoint(std::uint32_t restartPages);

 private:
  // Words of the header of SQLite's WAL index in shared memory (sqlite.org/walformat.html, section 2.3).
  static constexpr std::size_t kHeaderWords = 12;
  static constexpr std::size_t kChangeCounter = 2;
  static constexpr std::size_t kLogPages = 4;
  using Mark = std::array<std::uint32_t, kHeaderWords>;

  struct Close {
    void operator()(sqlite3* handle) const { sqlite3_close(handle); }
  };

  // While it lives, SQLite's calls wait for the write lock in the queue; afterwards the place is given up.
  class WaitToWrite {
   public:
    WaitToWrite(StoreDatabase& database, std::chrono::microseconds limit) : m_database(database) {
      m_database.m_waitsToWrite = true;
      m_database.m_waitLimit = limit;
    }
    ~WaitToWrite() {
      m_database.m_waitsToWrite = false;
      m_database.m_waitLimit = m_database.m_busyLimit;
      m_database.m_turn->Leave();
    }
    WaitToWrite(const WaitToWrite&) = delete;
    WaitToWrite& operator=(const WaitToWrite&) = delete;

   private:
    StoreDatabase& m_database;
  };
  static int OnBusy(void* context, int count);

  void CheckOrCreate(const std::string& path);
  void Create(const std::string& path);
  bool IsEmpty();
  void Execute(const char* sql);
  std::int64_t Query(const char* sql);
  void MapIndex(const std::string& path);
  Mark CurrentMark() const;
  void GiveWay();
  void AwaitTurn();
  static std::chrono::microseconds Pause(int tries);

  Clock& m_clock;
  std::chrono::microseconds m_busyLimit;
  std::optional<StoreTurn> m_turn;
  bool m_waitsToWrite = false;
  std::chrono::microseconds m_waitLimit;  // of SQLite's call under way, and how long it has waited
  std::chrono::microseconds m_waited{0};
  std::unique_ptr<sqlite3, Close> m_handle;
  std::optional<Statement> m_begin;
  std::optional<Statement> m_commit;
  std::optional<Statement> m_rollback;

  const volatile std::uint32_t* m_index = nullptr;  // owned by SQLite, valid while the connection is open
  Mark m_seen{};

  // Since when and for how many transactions a rival has been waiting.
  std::optional<MonotonicTime> m_rivalSince;
  int m_transactionsBeforeRival = 0;
};

}  // namespace quenmark::platform
