// A table of faults in a database of the module's own: database FILE.
#include <cstdio>
#include <memory>
#include <string>

#include "bsp/base/error.h"
#include "bsp/db/database.h"

namespace {

std::shared_ptr<MSError> Store(bsp::DataBase* db, int code, const std::string& text) {
  auto error = db->Exec("CREATE TABLE IF NOT EXISTS fault (code INTEGER, text TEXT)");
  if (error == nullptr) error = db->Transaction();
  if (error != nullptr) return error;
  error = db->ExecBound("INSERT INTO fault VALUES (?, ?)", {code, {text.data(), text.size()}});
  if (error == nullptr) return db->Commit();
  db->Rollback();
  return error;
}

}  // namespace

int main(int argc, char** argv) {
  bsp::DataBaseOptions options;
  options.journal = true;       // a killed process leaves a sound file
  options.keep_damaged = true;  // only a damaged file is replaced, and kept aside
  bsp::DataBase db(options);
  auto error = db.Init(argc > 1 ? argv[1] : "faults.db");
  if (error == nullptr) error = Store(&db, 7, "it's hot");
  if (error == nullptr) {
    error = db.Query("SELECT code, text FROM fault", [](int, char** values, char**) {
      printf("fault %s: %s\n", values[0], values[1]);
      return 0;
    });
  }
  if (error != nullptr) fprintf(stderr, "%s", error->Message().c_str());
  return error == nullptr ? 0 : 1;
}
