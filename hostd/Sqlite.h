// Thin RAII adapter over the SQLite C API, used only by the store.
//
// Db owns one connection; Stmt owns one prepared statement of that connection
// and must not outlive it. Neither is thread-safe: the store serialises every
// use behind its own mutex. Opening reports a Result; later errors are
// returned as false / std::nullopt and the last message is kept in Db::error().
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Result.h"

struct sqlite3;
struct sqlite3_stmt;

namespace hvfp::hostd {

class Db {
 public:
  static Result<std::unique_ptr<Db>> open(const std::string& path);
  ~Db();
  Db(const Db&) = delete;
  Db& operator=(const Db&) = delete;

  bool exec(std::string_view sql);
  std::string error() const;
  sqlite3* handle() const { return db_; }
  int64_t lastInsertId() const;
  int changes() const;

 private:
  explicit Db(sqlite3* db) : db_(db) {}
  sqlite3* db_;
};

class Stmt {
 public:
  Stmt(Db& db, std::string_view sql);
  ~Stmt();
  Stmt(const Stmt&) = delete;
  Stmt& operator=(const Stmt&) = delete;

  bool valid() const { return stmt_ != nullptr; }
  // Bind by 1-based index; chainable.
  Stmt& bind(int index, int64_t v);
  Stmt& bind(int index, std::string_view v);
  Stmt& bindNull(int index);
  // true when a row is available; false at the end or on error (see ok()).
  bool step();
  // Runs to completion; false on error.
  bool run();
  bool ok() const { return ok_; }
  void reset();

  int64_t integer(int col) const;
  std::string text(int col) const;
  bool isNull(int col) const;

 private:
  sqlite3_stmt* stmt_ = nullptr;
  bool ok_ = true;
};

// Runs BEGIN IMMEDIATE in the constructor; ROLLBACK in the destructor unless
// commit() succeeded.
class Transaction {
 public:
  explicit Transaction(Db& db);
  ~Transaction();
  bool commit();
  bool begun() const { return begun_; }

 private:
  Db& db_;
  bool begun_ = false;
  bool done_ = false;
};

}  // namespace hvfp::hostd
