// What a database holds, as texts.
#ifndef BSP_TESTS_SUPPORT_ROWS_H_
#define BSP_TESTS_SUPPORT_ROWS_H_

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bsp/db/database.h"

namespace test {

using Rows = std::vector<std::string>;

// The rows of a query, the columns of each joined by blanks, NULL as an empty text.
inline Rows Query(bsp::DataBase& db, const std::string& sql) {
  Rows rows;
  const auto error = db.Query(sql, [&rows](int count, char** values, char**) {
    rows.emplace_back();
    for (int i = 0; i < count; ++i) {
      rows.back() += std::string(i == 0 ? "" : " ") + (values[i] != nullptr ? values[i] : "");
    }
    return 0;
  });
  EXPECT_EQ(error, nullptr) << error->Message();
  return rows;
}

// The same from a file that nobody has open, as the next start finds it.
inline Rows QueryFile(const std::string& path, const std::string& sql,
                      const bsp::DataBaseOptions& options = {}) {
  bsp::DataBase db(options);
  const auto error = db.Init(path);
  EXPECT_EQ(error, nullptr) << error->Message();
  return error == nullptr ? Query(db, sql) : Rows();
}

}  // namespace test

#endif  // BSP_TESTS_SUPPORT_ROWS_H_
