#include "model/model_mapping.h"

#include <cstdio>
#include <cstring>

namespace zrbmd_detail {

namespace {

// Days since 1970-01-01 of a proleptic Gregorian date, and back.
long long daysFromCivil(long long y, unsigned m, unsigned d) {
  y -= m <= 2;
  long long era = (y >= 0 ? y : y - 399) / 400;
  unsigned yoe = static_cast<unsigned>(y - era * 400);
  unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<long long>(doe) - 719468;
}

void civilFromDays(long long z, long long& y, unsigned& m, unsigned& d) {
  z += 719468;
  long long era = (z >= 0 ? z : z - 146096) / 146097;
  unsigned doe = static_cast<unsigned>(z - era * 146097);
  unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  y = static_cast<long long>(yoe) + era * 400;
  unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  unsigned mp = (5 * doy + 2) / 153;
  d = doy - (153 * mp + 2) / 5 + 1;
  m = mp < 10 ? mp + 3 : mp - 9;
  y += m <= 2;
}

bool isLeap(long long y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

unsigned daysInMonth(long long y, unsigned m) {
  static constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return m == 2 && isLeap(y) ? 29 : kDays[m - 1];
}

// Reads exactly `count` digits.
bool digits(std::string_view text, std::size_t& i, int count, unsigned& value) {
  value = 0;
  for (int k = 0; k < count; ++k, ++i) {
    if (i >= text.size() || text[i] < '0' || text[i] > '9') return false;
    value = value * 10 + static_cast<unsigned>(text[i] - '0');
  }
  return true;
}

}  // namespace

ZRBErrorPtr malformedJSONError(simdjson::error_code code) {
  return malformedJSONError(simdjson::error_message(code));
}

struct DocumentLease::Reader {
  od::parser parser;
  std::string buffer;
};

namespace {
thread_local std::vector<std::unique_ptr<DocumentLease::Reader>> tReaders;
thread_local std::size_t tReadersInUse = 0;
}  // namespace

bool parseISO8601(std::string_view text, double& secondsSince1970) {
  std::size_t i = 0;
  unsigned year, month, day, hour = 0, minute = 0, second = 0;
  if (!digits(text, i, 4, year) || i >= text.size() || text[i++] != '-' || !digits(text, i, 2, month) ||
      i >= text.size() || text[i++] != '-' || !digits(text, i, 2, day))
    return false;
  if (month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month)) return false;
  double fraction = 0;
  long long offset = 0;
  if (i < text.size()) {
    if (text[i] != 'T' && text[i] != 't' && text[i] != ' ') return false;
    ++i;
    if (!digits(text, i, 2, hour) || i >= text.size() || text[i++] != ':' || !digits(text, i, 2, minute))
      return false;
    if (i < text.size() && text[i] == ':') {
      ++i;
      if (!digits(text, i, 2, second)) return false;
      if (i < text.size() && (text[i] == '.' || text[i] == ',')) {
        ++i;
        double scale = 0.1;
        std::size_t start = i;
        for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i, scale /= 10)
          fraction += (text[i] - '0') * scale;
        if (i == start) return false;
      }
    }
    if (hour > 23 || minute > 59 || second > 60) return false;
    if (i < text.size()) {
      char sign = text[i++];
      if (sign == 'Z' || sign == 'z') {
        if (i != text.size()) return false;
      } else if (sign == '+' || sign == '-') {
        unsigned oh, om = 0;
        if (!digits(text, i, 2, oh)) return false;
        if (i < text.size() && text[i] == ':') ++i;
        if (i < text.size() && !digits(text, i, 2, om)) return false;
        if (i != text.size() || oh > 23 || om > 59) return false;
        offset = (sign == '+' ? 1 : -1) * static_cast<long long>(oh * 3600 + om * 60);
      } else {
        return false;
      }
    }
  }
  long long days = daysFromCivil(year, month, day);
  secondsSince1970 =
      static_cast<double>(days * 86400 + hour * 3600 + minute * 60 + second - offset) + fraction;
  return true;
}

void appendISO8601(std::string& out, double seconds) {
  if (!std::isfinite(seconds) || std::fabs(seconds) > 1e14) {
    out += "1970-01-01T00:00:00Z";
    return;
  }
  double whole = std::floor(seconds);
  long long micros = std::llround((seconds - whole) * 1e6);
  long long total = static_cast<long long>(whole);
  if (micros >= 1000000) {
    micros -= 1000000;
    ++total;
  }
  long long days = total >= 0 ? total / 86400 : (total - 86399) / 86400;
  long long rest = total - days * 86400;
  long long y;
  unsigned m, d;
  civilFromDays(days, y, m, d);
  char buffer[64];
  int n = std::snprintf(buffer, sizeof buffer, "%04lld-%02u-%02uT%02lld:%02lld:%02lld", y, m, d, rest / 3600,
                        rest / 60 % 60, rest % 60);
  out.append(buffer, static_cast<std::size_t>(n));
  if (micros) {
    n = std::snprintf(buffer, sizeof buffer, ".%06lld", micros);
    while (buffer[n - 1] == '0') --n;
    out.append(buffer, static_cast<std::size_t>(n));
  }
  out += 'Z';
}

void appendJSONString(std::string& out, std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  out += '"';
  std::size_t start = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c != '"' && c != '\\') continue;
    out.append(text, start, i - start);
    start = i + 1;
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      case '\b': out += "\\b"; break;
      case '\f': out += "\\f"; break;
      default:
        out += "\\u00";
        out += kHex[c >> 4];
        out += kHex[c & 15];
    }
  }
  out.append(text, start, text.size() - start);
  out += '"';
}

void appendJSONDouble(std::string& out, double value) {
  if (!std::isfinite(value)) {
    out += "null";
    return;
  }
  char buffer[32];
  out.append(buffer, std::to_chars(buffer, buffer + sizeof buffer, value).ptr);
}

void appendJSONValue(std::string& out, const ZRBValue& value) {
  auto text = ZRBJSONSerialization::stringWithJSONObject(
      value, ZRBJSONWritingFragmentsAllowed | ZRBJSONWritingWithoutEscapingSlashes);
  out += text ? *text : "null";
}

ZRBErrorPtr malformedJSONError(std::string_view reason) {
  return ZRBError::make(
      ZRBCocoaErrorDomain, ZRBPropertyListReadCorruptError,
      ZRBValue::dictionary({{ZRBLocalizedDescriptionKey,
                             ZRBValue("The data couldn’t be read because it isn’t in the correct format.")},
                            {ZRBDebugDescriptionErrorKey, ZRBValue(reason)}}));
}

DocumentLease::DocumentLease() {
  if (tReadersInUse == tReaders.size()) tReaders.push_back(std::make_unique<Reader>());
  reader_ = tReaders[tReadersInUse++].get();
}

DocumentLease::~DocumentLease() {
  --tReadersInUse;
  // A large document's buffers are not kept.
  if (reader_->buffer.capacity() > (8u << 20)) {
    reader_->buffer = std::string();
    reader_->parser = od::parser();
  }
}

bool DocumentLease::open(std::string_view json, od::document& document, ZRBErrorPtr* error) {
  if (json.size() >= 3 && std::memcmp(json.data(), "\xEF\xBB\xBF", 3) == 0) json.remove_prefix(3);
  std::string& buffer = reader_->buffer;
  if (buffer.size() < json.size() + simdjson::SIMDJSON_PADDING)
    buffer.resize(json.size() + simdjson::SIMDJSON_PADDING);
  std::memcpy(buffer.data(), json.data(), json.size());
  std::memset(buffer.data() + json.size(), 0, simdjson::SIMDJSON_PADDING);
  if (auto e = reader_->parser.iterate(buffer.data(), json.size(), buffer.size()).get(document)) {
    if (error) *error = malformedJSONError(e);
    return false;
  }
  return true;
}

KeyEntry& KeyNode::entry(std::string_view key) {
  for (KeyEntry& e : entries)
    if (e.key == key) return e;
  entries.push_back(KeyEntry{std::string(key), {}, nullptr});
  return entries.back();
}

void KeyNode::index() {
  std::size_t size = 4;
  while (size < entries.size() * 2) size *= 2;
  mask = size - 1;
  table.assign(size, -1);
  for (std::size_t k = 0; k < entries.size(); ++k) {
    std::size_t i = hashKey(entries[k].key) & mask;
    while (table[i] >= 0) i = (i + 1) & mask;
    table[i] = static_cast<std::int16_t>(k);
    if (entries[k].child) entries[k].child->index();
  }
}

void PlanBase::add(PropertySlot slot, const ZRBMDModelOptionsBase& options) {
  auto index = static_cast<std::uint16_t>(properties.size());
  std::vector<std::string> keys{slot.name};
  if (auto found = options.keyPaths.find(slot.name);
      found != options.keyPaths.end() && !found->second.empty())
    keys = found->second;
  if (keys.size() > 254) keys.resize(254);
  if (keys.size() > 1) slot.candidates = hasCandidates = true;
  properties.push_back(std::move(slot));
  for (std::size_t rank = 0; rank < keys.size(); ++rank) {
    KeyNode* node = &root;
    std::string_view path = keys[rank];
    for (std::size_t dot; (dot = path.find('.')) != std::string_view::npos; path.remove_prefix(dot + 1)) {
      KeyEntry& e = node->entry(path.substr(0, dot));
      if (!e.child) e.child = std::make_unique<KeyNode>();
      node = e.child.get();
    }
    node->entry(path).targets.push_back({index, static_cast<std::uint8_t>(rank)});
  }
}

void PlanBase::finish() { root.index(); }

bool readNode(const PlanBase& plan, const KeyNode& node, const ZRBValue& object, void* model, Context& c,
              Ranks* ranks) {
  std::size_t cursor = 0;
  for (const auto& [key, v] : object.entries()) {
    const KeyEntry* entry = node.find(key.stringView(), cursor);
    if (!entry) continue;
    for (const KeyTarget& t : entry->targets) {
      if (plan.properties[t.property].candidates && v.isNull()) continue;
      if (claim(plan, t, model, ranks)) plan.properties[t.property].readValue(model, v, c);
    }
    if (entry->child && v.isDictionary()) readNode(plan, *entry->child, v, model, c, ranks);
  }
  return true;
}

bool readModelValue(const PlanBase& plan, void* model, const ZRBValue& v, Context& c) {
  ZRBValue reshaped;
  const ZRBValue* input = &v;
  if (plan.willMap) {
    reshaped = plan.willMap(v);
    input = &reshaped;
  }
  if (!input->isDictionary() || c.depth >= kMaximumDepth) return false;
  ++c.depth;
  Ranks ranks(plan.hasCandidates ? plan.properties.size() : 0);
  readNode(plan, plan.root, *input, model, c, &ranks);
  --c.depth;
  return !plan.didMap || plan.didMap(model);
}

namespace {
// The target a key writes: its first-choice property.
const KeyTarget* writtenTarget(const KeyEntry& entry) {
  for (const KeyTarget& t : entry.targets)
    if (t.rank == 0) return &t;
  return nullptr;
}
}  // namespace

void writeNode(const PlanBase& plan, const KeyNode& node, const void* model, std::string& out, int depth) {
  out += '{';
  bool first = true;
  for (const KeyEntry& entry : node.entries) {
    const KeyTarget* t = writtenTarget(entry);
    if (!t && !entry.child) continue;
    if (!first) out += ',';
    first = false;
    appendJSONString(out, entry.key);
    out += ':';
    if (t)
      plan.properties[t->property].writeJSON(model, out, depth);
    else
      writeNode(plan, *entry.child, model, out, depth);
  }
  out += '}';
}

ZRBValue valueOfNode(const PlanBase& plan, const KeyNode& node, const void* model, bool archive, int depth) {
  std::vector<ZRBDictionaryEntry> entries;
  entries.reserve(node.entries.size());
  for (const KeyEntry& entry : node.entries) {
    const KeyTarget* t = writtenTarget(entry);
    if (t)
      entries.emplace_back(ZRBValue(entry.key),
                           plan.properties[t->property].makeValue(model, archive, depth));
    else if (entry.child)
      entries.emplace_back(ZRBValue(entry.key), valueOfNode(plan, *entry.child, model, archive, depth));
  }
  return ZRBValue::dictionary(std::move(entries));
}

}  // namespace zrbmd_detail
