#include "labelmgr/user_set_store.h"

namespace zorv::labelmgr {

namespace {

// SQLite integers are signed; the bit pattern of an unsigned 64-bit value
// survives the round trip through int64_t.
int64_t toColumn(uint64_t value) { return static_cast<int64_t>(value); }
uint64_t fromColumn(int64_t value) { return static_cast<uint64_t>(value); }

std::optional<Field> fieldFromName(const std::string& name) {
  for (Field field : {Field::kOid, Field::kSid, Field::kTid, Field::kInheritFlag})
    if (name == fieldName(field)) return field;
  return std::nullopt;
}

int changes(StateDb& db) {
  Statement query(db, "SELECT changes()");
  return query.step() ? static_cast<int>(query.columnInt(0)) : -1;
}

}  // namespace

const char* fieldName(Field field) {
  switch (field) {
    case Field::kOid:
      return "oid";
    case Field::kSid:
      return "sid";
    case Field::kTid:
      return "tid";
    case Field::kInheritFlag:
      return "inherit-flag";
  }
  return "?";
}

bool putFileRule(StateDb& db, const FileRule& rule) {
  Statement insert(db,
                   "INSERT OR REPLACE INTO file_rule (field, is_pattern, target, v0, v1, v2)"
                   " VALUES (?1, ?2, ?3, ?4, ?5, ?6)");
  insert.bind(1, std::string(fieldName(rule.field)));
  insert.bind(2, int64_t{rule.isPattern ? 1 : 0});
  insert.bind(3, rule.target);
  for (int i = 0; i < 3; ++i) insert.bind(4 + i, toColumn(rule.value[i]));
  return insert.run();
}

int deleteFileRule(StateDb& db, Field field, bool isPattern, const std::string& target) {
  Statement remove(db,
                   "DELETE FROM file_rule WHERE field = ?1 AND is_pattern = ?2 AND target = ?3");
  remove.bind(1, std::string(fieldName(field)));
  remove.bind(2, int64_t{isPattern ? 1 : 0});
  remove.bind(3, target);
  if (!remove.run()) return -1;
  return changes(db) > 0 ? 1 : 0;
}

bool loadFileRules(StateDb& db, std::optional<Field> field, std::vector<FileRule>* rules) {
  rules->clear();
  Statement query(db, field ? "SELECT seq, field, is_pattern, target, v0, v1, v2 FROM file_rule"
                              " WHERE field = ?1 ORDER BY seq"
                            : "SELECT seq, field, is_pattern, target, v0, v1, v2 FROM file_rule"
                              " ORDER BY seq");
  if (field) query.bind(1, std::string(fieldName(*field)));
  while (query.step()) {
    std::optional<Field> rowField = fieldFromName(query.columnText(1));
    if (!rowField) continue;  // written by a later version of the library
    FileRule rule;
    rule.seq = query.columnInt(0);
    rule.field = *rowField;
    rule.isPattern = query.columnInt(2) != 0;
    rule.target = query.columnText(3);
    for (int i = 0; i < 3; ++i) rule.value[i] = fromColumn(query.columnInt(4 + i));
    rules->push_back(std::move(rule));
  }
  return !query.failed();
}

bool deleteFileRules(StateDb& db, Field field) {
  Statement remove(db, "DELETE FROM file_rule WHERE field = ?1");
  remove.bind(1, std::string(fieldName(field)));
  return remove.run();
}

bool putPkgId(StateDb& db, const std::string& name, uint64_t id) {
  Statement insert(db, "INSERT OR REPLACE INTO pkg_id (name, id) VALUES (?1, ?2)");
  insert.bind(1, name);
  insert.bind(2, toColumn(id));
  return insert.run();
}

int deletePkgId(StateDb& db, const std::string& name) {
  Statement remove(db, "DELETE FROM pkg_id WHERE name = ?1");
  remove.bind(1, name);
  if (!remove.run()) return -1;
  return changes(db) > 0 ? 1 : 0;
}

bool loadPkgIds(StateDb& db, std::vector<PkgIdRule>* ids) {
  ids->clear();
  Statement query(db, "SELECT name, id FROM pkg_id ORDER BY seq");
  while (query.step()) ids->push_back({query.columnText(0), fromColumn(query.columnInt(1))});
  return !query.failed();
}

bool deletePkgIds(StateDb& db) { return Statement(db, "DELETE FROM pkg_id").run(); }

}  // namespace zorv::labelmgr
