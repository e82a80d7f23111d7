#include "ZorvekTypes/Types.h"

#include <ios>

namespace Zorvek {

std::ostream& operator<<(std::ostream& os, ResourceType t) {
  switch (t) {
    case ResourceType::none_:
      return os << "none";
    case ResourceType::tableResource_:
      return os << "tableResource";
    case ResourceType::registerResource_:
      return os << "registerResource";
  }
  return os << "resourceType(" << static_cast<U32>(t) << ")";
}

std::ostream& operator<<(std::ostream& os, const PhysicalResourceId& r) {
  return os << " resource id 0x" << std::hex << r.id() << std::dec;
}

std::ostream& operator<<(std::ostream& os, const LogicalResourceId& r) {
  return os << r.type() << " 0x" << std::hex << r.id() << std::dec;
}

std::ostream& operator<<(std::ostream& os, Command c) {
  switch (c) {
    case Command::writeCmd_:
      return os << "write";
    case Command::readCmd_:
      return os << "read";
    case Command::bulkWriteCmd_:
      return os << "bulkWrite";
    case Command::bulkReadCmd_:
      return os << "bulkRead";
    case Command::blockingWriteCmd_:
      return os << "blockingWrite";
    case Command::freeCmd_:
      return os << "free";
  }
  return os << "command(" << static_cast<U32>(c) << ")";
}

std::ostream& operator<<(std::ostream& os, const CacheTableIndex& i) {
  return os << "(device " << i.devId() << "," << i.prid() << ")";
}

}  // namespace Zorvek
