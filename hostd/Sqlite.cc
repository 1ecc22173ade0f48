#include "Sqlite.h"

#include <sqlite3.h>

#include "Outcome.h"

namespace hvfp::hostd {

Result<std::unique_ptr<Db>> Db::open(const std::string& path) {
  sqlite3* raw = nullptr;
  int rc =
      sqlite3_open_v2(path.c_str(), &raw,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  if (rc != SQLITE_OK) {
    std::string why = raw ? sqlite3_errmsg(raw) : "sqlite3_open_v2 failed";
    sqlite3_close(raw);
    return fail(500, kStorage, "database " + path + ": " + why);
  }
  sqlite3_busy_timeout(raw, 5000);
  return std::unique_ptr<Db>(new Db(raw));
}

Db::~Db() { sqlite3_close(db_); }

bool Db::exec(std::string_view sql) {
  std::string text(sql);
  return sqlite3_exec(db_, text.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

std::string Db::error() const { return sqlite3_errmsg(db_); }
int64_t Db::lastInsertId() const { return sqlite3_last_insert_rowid(db_); }
int Db::changes() const { return sqlite3_changes(db_); }

Stmt::Stmt(Db& db, std::string_view sql) {
  if (sqlite3_prepare_v2(db.handle(), sql.data(), static_cast<int>(sql.size()), &stmt_, nullptr) !=
      SQLITE_OK) {
    stmt_ = nullptr;
    ok_ = false;
  }
}

Stmt::~Stmt() { sqlite3_finalize(stmt_); }

Stmt& Stmt::bind(int index, int64_t v) {
  if (stmt_ && sqlite3_bind_int64(stmt_, index, v) != SQLITE_OK) ok_ = false;
  return *this;
}

Stmt& Stmt::bind(int index, std::string_view v) {
  if (stmt_ && sqlite3_bind_text64(stmt_, index, v.data(), v.size(), SQLITE_TRANSIENT,
                                   SQLITE_UTF8) != SQLITE_OK)
    ok_ = false;
  return *this;
}

Stmt& Stmt::bindNull(int index) {
  if (stmt_) sqlite3_bind_null(stmt_, index);
  return *this;
}

bool Stmt::step() {
  if (!stmt_ || !ok_) return false;
  int rc = sqlite3_step(stmt_);
  if (rc == SQLITE_ROW) return true;
  if (rc != SQLITE_DONE) ok_ = false;
  return false;
}

bool Stmt::run() {
  while (step()) {
  }
  return ok_;
}

void Stmt::reset() {
  if (!stmt_) return;
  sqlite3_reset(stmt_);
  sqlite3_clear_bindings(stmt_);
  ok_ = true;
}

int64_t Stmt::integer(int col) const { return sqlite3_column_int64(stmt_, col); }

std::string Stmt::text(int col) const {
  auto p = sqlite3_column_text(stmt_, col);
  if (!p) return {};
  return std::string(reinterpret_cast<const char*>(p),
                     static_cast<size_t>(sqlite3_column_bytes(stmt_, col)));
}

bool Stmt::isNull(int col) const { return sqlite3_column_type(stmt_, col) == SQLITE_NULL; }

Transaction::Transaction(Db& db) : db_(db) { begun_ = db_.exec("BEGIN IMMEDIATE"); }

Transaction::~Transaction() {
  if (begun_ && !done_) db_.exec("ROLLBACK");
}

bool Transaction::commit() {
  if (!begun_ || done_) return false;
  done_ = db_.exec("COMMIT");
  return done_;
}

}  // namespace hvfp::hostd
