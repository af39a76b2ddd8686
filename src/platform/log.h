// Agent log: one record per TLogMessage, written when the object is destroyed.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

// Identity of a log source. The module accepts one and does not use it.
struct TLogIdent {
  std::string name;
};

class TLogMessage {
 public:
  explicit TLogMessage(uint16_t id) : id_(id) {}
  ~TLogMessage();  // sends the record to the agent's log sink
  TLogMessage(const TLogMessage&) = delete;
  TLogMessage& operator=(const TLogMessage&) = delete;

  // Adds an attribute. Type 1 is a text attribute, the only kind used here.
  TLogMessage& append_attr(int type, const std::string& text) {
    attrs_.emplace_back(type, text);
    return *this;
  }

  uint16_t id() const { return id_; }
  const std::vector<std::pair<int, std::string>>& attrs() const { return attrs_; }

 private:
  uint16_t id_;
  std::vector<std::pair<int, std::string>> attrs_;
};

// The three ids the module uses.
constexpr uint16_t log_id_failure = 365;
constexpr uint16_t log_id_notice = 366;
constexpr uint16_t log_id_course = 367;
constexpr int log_attr_text = 1;
