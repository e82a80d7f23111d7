#include "sim/Topology.h"

#include <algorithm>

#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

namespace sim {

namespace {

using Json = nlohmann::ordered_json;

// ---------------------------------------------------------------------------------------
// Parsing with line numbers: the reader counts the newlines it has consumed, and a SAX
// handler records the line of every object member and array element by its path.

class CountingIterator {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = const char*;
  using reference = const char&;

  CountingIterator(const char* p, std::size_t* line) : p_(p), line_(line) {}
  reference operator*() const { return *p_; }
  CountingIterator& operator++() {
    if (*p_ == '\n') ++*line_;
    ++p_;
    return *this;
  }
  CountingIterator operator++(int) {
    CountingIterator old = *this;
    ++*this;
    return old;
  }
  friend bool operator==(const CountingIterator& a, const CountingIterator& b) {
    return a.p_ == b.p_;
  }

 private:
  const char* p_;
  std::size_t* line_;
};

class LineRecorder : public nlohmann::json_sax<Json> {
 public:
  explicit LineRecorder(const std::size_t* line) : line_(line) {}
  Json root;
  std::map<std::string, std::size_t> lines;  // path ("serializers[1].name") -> line
  std::string error;

  bool null() override { return value(Json()); }
  bool boolean(bool v) override { return value(Json(v)); }
  bool number_integer(number_integer_t v) override { return value(Json(v)); }
  bool number_unsigned(number_unsigned_t v) override { return value(Json(v)); }
  bool number_float(number_float_t v, const string_t&) override { return value(Json(v)); }
  bool string(string_t& v) override { return value(Json(v)); }
  bool binary(binary_t&) override { return value(Json()); }
  bool start_object(std::size_t) override { return open(Json::object()); }
  bool end_object() override { return close(); }
  bool start_array(std::size_t) override { return open(Json::array()); }
  bool end_array() override { return close(); }
  bool key(string_t& k) override {
    frames_.back().key = k;
    lines[childPath()] = *line_ + 1;
    return true;
  }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& e) override {
    error = e.what();
    return false;
  }

 private:
  struct Frame {
    Json* node;
    std::string path;
    std::string key;
  };
  std::string childPath() const {
    const Frame& f = frames_.back();
    if (f.node->is_array()) return f.path + "[" + std::to_string(f.node->size()) + "]";
    return f.path.empty() ? f.key : f.path + "." + f.key;
  }
  // Places a value in the current container and returns where it now lives.
  Json* place(Json v, std::string* path) {
    if (frames_.empty()) {
      root = std::move(v);
      *path = "";
      return &root;
    }
    Frame& f = frames_.back();
    *path = childPath();
    if (f.node->is_array()) {
      lines.emplace(*path, *line_ + 1);
      f.node->push_back(std::move(v));
      return &f.node->back();
    }
    Json& slot = (*f.node)[f.key];
    slot = std::move(v);
    return &slot;
  }
  bool value(Json v) {
    std::string path;
    place(std::move(v), &path);
    return true;
  }
  bool open(Json container) {
    // Every open container keeps its path, as long as its depth: without a bound, deeply
    // nested input would cost memory quadratic in its size. A topology nests six deep.
    if (frames_.size() == kMaxDepth) {
      error = "nested deeper than " + std::to_string(kMaxDepth) + " levels";
      return false;
    }
    std::string path;
    Json* node = place(std::move(container), &path);
    frames_.push_back({node, path, {}});
    return true;
  }
  bool close() {
    frames_.pop_back();
    return true;
  }

  static constexpr std::size_t kMaxDepth = 64;
  const std::size_t* line_;
  std::vector<Frame> frames_;
};

// Reads the fields of the parsed document, naming source, line and field in every error.
class Reader {
 public:
  Reader(const std::string& source, const std::map<std::string, std::size_t>& lines)
      : source_(source), lines_(lines) {}

  [[noreturn]] void fail(const std::string& path, const std::string& what) const {
    std::ostringstream os;
    os << source_;
    if (auto it = lines_.find(path); it != lines_.end()) os << ":" << it->second;
    os << ": " << (path.empty() ? std::string("top level") : "field '" + path + "'") << ": "
       << what;
    throw TopologyError(os.str());
  }

  const Json& object(const Json& j, const std::string& path,
                     std::initializer_list<const char*> allowed) const {
    if (!j.is_object()) fail(path, "expected an object");
    for (const auto& [k, v] : j.items()) {
      bool known = false;
      for (const char* a : allowed) known = known || k == a;
      if (!known) fail(join(path, k), "unknown field");
    }
    return j;
  }
  const Json& member(const Json& obj, const std::string& path, const char* name) const {
    auto it = obj.find(name);
    if (it == obj.end()) fail(path, std::string("missing field '") + name + "'");
    return *it;
  }
  const Json& array(const Json& obj, const std::string& path, const char* name) const {
    const Json& a = member(obj, path, name);
    if (!a.is_array()) fail(join(path, name), "expected an array");
    return a;
  }
  template <class U>
  U number(const Json& j, const std::string& path) const {
    if (!j.is_number_unsigned() && !(j.is_number_integer() && j.get<std::int64_t>() >= 0))
      fail(path, "expected a non-negative whole number");
    const auto v = j.get<std::uint64_t>();
    if (v > std::numeric_limits<U>::max())
      fail(path, "value " + std::to_string(v) + " is above " +
                     std::to_string(std::numeric_limits<U>::max()));
    return static_cast<U>(v);
  }
  template <class U>
  U number(const Json& obj, const std::string& path, const char* name) const {
    return number<U>(member(obj, path, name), join(path, name));
  }
  template <class U>
  U number(const Json& obj, const std::string& path, const char* name, U fallback) const {
    return obj.contains(name) ? number<U>(obj, path, name) : fallback;
  }
  std::string text(const Json& obj, const std::string& path, const char* name) const {
    const Json& j = member(obj, path, name);
    if (!j.is_string()) fail(join(path, name), "expected a string");
    return j.get<std::string>();
  }
  bool flag(const Json& obj, const std::string& path, const char* name, bool fallback) const {
    if (!obj.contains(name)) return fallback;
    const Json& j = obj.at(name);
    if (!j.is_boolean()) fail(join(path, name), "expected true or false");
    return j.get<bool>();
  }
  static std::string join(const std::string& path, const std::string& name) {
    return path.empty() ? name : path + "." + name;
  }
  static std::string index(const std::string& path, std::size_t i) {
    return path + "[" + std::to_string(i) + "]";
  }

 private:
  const std::string& source_;
  const std::map<std::string, std::size_t>& lines_;
};

TableDef readTable(const Reader& r, const Json& j, const std::string& p) {
  r.object(j, p,
           {"name", "id", "entrySize", "memoryEntrySize", "entryCount", "instances", "cacheable",
            "hash"});
  TableDef t;
  t.name = Kel::Name(r.text(j, p, "name"));
  t.id = r.number<U64>(j, p, "id");
  t.entrySize = r.number<U32>(j, p, "entrySize");
  t.memoryEntrySize = r.number<U32>(j, p, "memoryEntrySize", t.entrySize);
  t.entryCount = r.number<U32>(j, p, "entryCount");
  t.instances = r.number<U32>(j, p, "instances", 1u);
  t.cacheable = r.flag(j, p, "cacheable", true);
  t.hash = r.flag(j, p, "hash", false);
  return t;
}

RegisterDef readRegister(const Reader& r, const Json& j, const std::string& p) {
  r.object(j, p, {"name", "id", "size", "cacheable"});
  RegisterDef reg;
  reg.name = Kel::Name(r.text(j, p, "name"));
  reg.id = r.number<U64>(j, p, "id");
  reg.size = r.number<U32>(j, p, "size");
  reg.cacheable = r.flag(j, p, "cacheable", true);
  return reg;
}

LogicalResourceDef readResource(const Reader& r, const Json& j, const std::string& p) {
  r.object(j, p, {"id", "tables", "dataMask"});
  LogicalResourceDef res;
  res.id = r.number<U64>(j, p, "id");
  const Json& tables = r.array(j, p, "tables");
  for (std::size_t i = 0; i < tables.size(); ++i)
    res.tables.push_back(r.number<U64>(tables[i], Reader::index(Reader::join(p, "tables"), i)));
  if (j.contains("dataMask")) {
    const Json& mask = r.array(j, p, "dataMask");
    for (std::size_t i = 0; i < mask.size(); ++i)
      res.dataMask.push_back(r.number<U8>(mask[i], Reader::index(Reader::join(p, "dataMask"), i)));
  }
  return res;
}

SerializerDef readSerializer(const Reader& r, const Json& j, const std::string& p) {
  r.object(j, p, {"id", "agent", "name", "kickQueue", "configDir", "statusDir", "resources"});
  SerializerDef s;
  s.id = r.number<U16>(j, p, "id");
  s.agent = r.number<AgentId>(j, p, "agent");
  s.name = r.text(j, p, "name");
  s.kickQueue = r.text(j, p, "kickQueue");
  s.configDir = r.text(j, p, "configDir");
  s.statusDir = r.text(j, p, "statusDir");
  if (j.contains("resources")) {
    const Json& res = r.array(j, p, "resources");
    for (std::size_t i = 0; i < res.size(); ++i)
      s.resources.push_back(
          readResource(r, res[i], Reader::index(Reader::join(p, "resources"), i)));
  }
  return s;
}

Topology readTopology(const Reader& r, const Json& root) {
  r.object(root, "", {"dalAgent", "agents", "devices", "serializers"});
  Topology t;
  t.dalAgent = r.number<AgentId>(root, "", "dalAgent");
  const Json& agents = r.array(root, "", "agents");
  for (std::size_t i = 0; i < agents.size(); ++i) {
    const std::string p = Reader::index("agents", i);
    r.object(agents[i], p, {"id", "requesterName"});
    t.agents.push_back({r.number<AgentId>(agents[i], p, "id"),
                        agents[i].contains("requesterName") ? r.text(agents[i], p, "requesterName")
                                                            : std::string()});
  }
  const Json& devices = r.array(root, "", "devices");
  for (std::size_t i = 0; i < devices.size(); ++i) {
    const std::string p = Reader::index("devices", i);
    const Json& d = r.object(devices[i], p, {"id", "tables", "registers"});
    DeviceDef dev;
    dev.id = r.number<U32>(d, p, "id");
    const Json& tables = r.array(d, p, "tables");
    for (std::size_t k = 0; k < tables.size(); ++k)
      dev.tables.push_back(readTable(r, tables[k], Reader::index(Reader::join(p, "tables"), k)));
    if (d.contains("registers")) {
      const Json& regs = r.array(d, p, "registers");
      for (std::size_t k = 0; k < regs.size(); ++k)
        dev.registers.push_back(
            readRegister(r, regs[k], Reader::index(Reader::join(p, "registers"), k)));
    }
    t.devices.push_back(std::move(dev));
  }
  const Json& sers = r.array(root, "", "serializers");
  for (std::size_t i = 0; i < sers.size(); ++i)
    t.serializers.push_back(readSerializer(r, sers[i], Reader::index("serializers", i)));
  return t;
}

// ---------------------------------------------------------------------------------------
// Validation: everything the creator, the serializers and the chips would trip over.

// The resources one device may have, table instances and registers together.
constexpr U64 kMaxResourcesPerDevice = 65536;

class Validator {
 public:
  Validator(const Topology& t, const Reader& r) : t_(t), r_(r) {}

  void run() {
    devices();
    agents();
    serializers();
  }

 private:
  void devices() {
    if (t_.devices.empty()) r_.fail("devices", "a switch needs at least one device");
    std::set<U32> ids;
    for (std::size_t i = 0; i < t_.devices.size(); ++i) {
      const DeviceDef& d = t_.devices[i];
      const std::string p = Reader::index("devices", i);
      if (d.id >= Zorvek::TargetId::max())
        r_.fail(Reader::join(p, "id"), "device " + std::to_string(d.id) + " is not below 127");
      if (!ids.insert(d.id).second)
        r_.fail(Reader::join(p, "id"), "device " + std::to_string(d.id) + " appears twice");
      // Counted before the geometry lays them out: a few characters of "instances" would
      // otherwise make it lay out billions of resources.
      U64 resources = d.registers.size();
      for (const TableDef& t : d.tables) resources += t.instances;
      if (resources > kMaxResourcesPerDevice)
        r_.fail(p, "device " + std::to_string(d.id) + " has " + std::to_string(resources) +
                       " resources (table instances and registers), more than " +
                       std::to_string(kMaxResourcesPerDevice));
      try {
        geometries_.push_back(Kel::allocate<Geometry>(Kel::Name("device" + std::to_string(d.id)),
                                                      d.tables, d.registers));
      } catch (const GeometryError& e) {
        r_.fail(p, e.what());
      }
    }
  }

  void agents() {
    std::set<AgentId> ids;
    for (std::size_t i = 0; i < t_.agents.size(); ++i)
      if (!ids.insert(t_.agents[i].id).second)
        r_.fail(Reader::join(Reader::index("agents", i), "id"),
                "agent " + std::to_string(t_.agents[i].id) + " appears twice");
    const AgentDef* dal = t_.agent(t_.dalAgent);
    if (!dal) r_.fail("dalAgent", "agent " + std::to_string(t_.dalAgent) + " is not in agents");
    if (dal->requesterName.empty())
      r_.fail("dalAgent",
              "agent " + std::to_string(t_.dalAgent) + " runs the DAL but has no requesterName");
  }

  void serializers() {
    std::set<U16> ids;
    std::set<std::string> names;
    std::map<U64, std::string> tableOwner;
    for (std::size_t i = 0; i < t_.serializers.size(); ++i) {
      const SerializerDef& s = t_.serializers[i];
      const std::string p = Reader::index("serializers", i);
      if (!ids.insert(s.id).second)
        r_.fail(Reader::join(p, "id"), "serializer id " + std::to_string(s.id) + " appears twice");
      if (s.name.empty() || !names.insert(s.name).second)
        r_.fail(Reader::join(p, "name"), "serializer names must be present and unique");
      if (!t_.agent(s.agent))
        r_.fail(Reader::join(p, "agent"), "agent " + std::to_string(s.agent) + " is not in agents");
      if (s.configDir.empty() || s.statusDir.empty() || s.configDir == s.statusDir)
        r_.fail(p, "configDir and statusDir must be two different paths");
      if (s.agent == t_.dalAgent && !s.resources.empty())
        r_.fail(Reader::join(p, "resources"),
                "serializer '" + s.name + "' runs in agent " + std::to_string(s.agent) +
                    ", the agent that runs the DAL, so it cannot own resources that agent "
                    "reaches remotely");
      for (std::size_t k = 0; k < s.resources.size(); ++k)
        resource(s, s.resources[k], Reader::index(Reader::join(p, "resources"), k), tableOwner);
    }
  }

  void resource(const SerializerDef& s, const LogicalResourceDef& res, const std::string& p,
                std::map<U64, std::string>& tableOwner) {
    if (!logicalIds_.insert(res.id).second)
      r_.fail(Reader::join(p, "id"),
              "logical resource " + std::to_string(res.id) + " appears twice");
    for (std::size_t k = 0; k < res.tables.size(); ++k) {
      const U64 id = res.tables[k];
      const std::string tp = Reader::index(Reader::join(p, "tables"), k);
      for (std::size_t d = 0; d < geometries_.size(); ++d)
        if (!geometries_[d]->layout(PhysicalResourceId(ResourceType::tableResource_, id)))
          r_.fail(tp, "table " + std::to_string(id) + " does not exist on device " +
                          std::to_string(t_.devices[d].id));
      auto [it, fresh] = tableOwner.emplace(id, s.name);
      if (!fresh)
        r_.fail(tp, "table " + std::to_string(id) + " is already owned by serializer '" +
                        it->second + "'");
    }
  }

  const Topology& t_;
  const Reader& r_;
  std::vector<Kel::Ptr<Geometry>> geometries_;
  std::set<U64> logicalIds_;
};

Json tableJson(const TableDef& t) {
  return {{"name", t.name},
          {"id", t.id},
          {"entrySize", t.entrySize},
          {"memoryEntrySize", t.memoryEntrySize},
          {"entryCount", t.entryCount},
          {"instances", t.instances},
          {"cacheable", t.cacheable},
          {"hash", t.hash}};
}

}  // namespace

// ---------------------------------------------------------------------------------------

Topology Topology::parse(std::string_view json, const std::string& source) {
  std::size_t line = 0;
  LineRecorder recorder(&line);
  CountingIterator first(json.data(), &line), last(json.data() + json.size(), &line);
  if (!Json::sax_parse(first, last, &recorder)) {
    throw TopologyError(source + ":" + std::to_string(line + 1) +
                        ": malformed JSON: " + recorder.error);
  }
  const Reader reader(source, recorder.lines);
  Topology t = readTopology(reader, recorder.root);
  Validator(t, reader).run();
  return t;
}

Topology Topology::load(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  if (!f) throw TopologyError(path + ": cannot read the file");
  const std::string text((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  return parse(text, path);
}

void Topology::validate(const std::string& source) const {
  const std::map<std::string, std::size_t> noLines;
  Validator(*this, Reader(source, noLines)).run();
}

std::string Topology::toJson() const {
  Json root;
  root["dalAgent"] = dalAgent;
  root["agents"] = Json::array();
  for (const AgentDef& a : agents)
    root["agents"].push_back({{"id", a.id}, {"requesterName", a.requesterName}});
  root["devices"] = Json::array();
  for (const DeviceDef& d : devices) {
    Json dev = {{"id", d.id}, {"tables", Json::array()}, {"registers", Json::array()}};
    for (const TableDef& t : d.tables) dev["tables"].push_back(tableJson(t));
    for (const RegisterDef& reg : d.registers)
      dev["registers"].push_back(
          {{"name", reg.name}, {"id", reg.id}, {"size", reg.size}, {"cacheable", reg.cacheable}});
    root["devices"].push_back(std::move(dev));
  }
  root["serializers"] = Json::array();
  for (const SerializerDef& s : serializers) {
    Json ser = {{"id", s.id},
                {"agent", s.agent},
                {"name", s.name},
                {"kickQueue", s.kickQueue},
                {"configDir", s.configDir},
                {"statusDir", s.statusDir},
                {"resources", Json::array()}};
    for (const LogicalResourceDef& r : s.resources) {
      Json res = {{"id", r.id}, {"tables", r.tables}};
      if (!r.dataMask.empty()) res["dataMask"] = r.dataMask;
      ser["resources"].push_back(std::move(res));
    }
    root["serializers"].push_back(std::move(ser));
  }
  return root.dump(2) + "\n";
}

const AgentDef* Topology::agent(AgentId id) const {
  for (const AgentDef& a : agents)
    if (a.id == id) return &a;
  return nullptr;
}

const SerializerDef* Topology::serializer(std::string_view name) const {
  for (const SerializerDef& s : serializers)
    if (s.name == name) return &s;
  return nullptr;
}

const SerializerDef* Topology::owner(U64 table) const {
  for (const SerializerDef& s : serializers)
    for (const LogicalResourceDef& res : s.resources)
      if (std::find(res.tables.begin(), res.tables.end(), table) != res.tables.end()) return &s;
  return nullptr;
}

bool operator==(const Topology& a, const Topology& b) { return a.toJson() == b.toJson(); }

Topology Topology::embeddedDefault() {
  auto device = [](U32 id) {
    DeviceDef d;
    d.id = id;
    d.tables = {
        // name, id, entry, memory entry, entries, instances, cacheable, hash
        {Kel::Name("l2Host"), 0x10, 16, 16, 4096, 1, true, true},
        {Kel::Name("l3Route"), 0x20, 8, 8, 2048, 1, true, false},
        {Kel::Name("aclRule"), 0x30, 8, 16, 1024, 2, true, false},
        {Kel::Name("vlanXlate"), 0x40, 8, 8, 1024, 1, true, false},
        {Kel::Name("counterBank"), 0x50, 8, 8, 512, 1, false, false},
    };
    d.registers = {{Kel::Name("globalCtrl"), 0x1, 4, true}, {Kel::Name("portMode"), 0x2, 8, true}};
    return d;
  };
  Topology t;
  t.dalAgent = 1;
  t.agents = {{1, "fwd"}, {2, "l2agent"}, {3, "aclagent"}};
  t.devices = {device(0), device(1)};
  SerializerDef l2{
      1, 2, "l2ser", "kick-l2ser", "serializers/l2ser/config", "serializers/l2ser/status", {}};
  // The forwarding agent may write only the first 8 bytes of a host entry, and of those
  // the low nibble of byte 7 is the other agent's.
  l2.resources = {{0x100, {0x10}, {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xf0}},
                  {0x101, {0x40}, {}}};
  SerializerDef acl{2,
                    3,
                    "aclser",
                    "kick-aclser",
                    "serializers/aclser/config",
                    "serializers/aclser/status",
                    {{0x200, {0x30}, {}}}};
  t.serializers = {l2, acl};
  return t;
}

Kel::Ptr<const Geometry> deviceGeometry(const DeviceDef& device) {
  return Kel::allocate<Geometry>(Kel::Name("device" + std::to_string(device.id)), device.tables,
                                 device.registers);
}

}  // namespace sim
