// The argument bytes and lengths of every export: the first byte picks the
// export, the rest gives its texts, lengths (the real one, shorter, 0,
// negative or huge with a null pointer), flags and null pointers where the
// interface allows them.
#include <climits>
#include <list>

#include "world.h"

using namespace bv::fuzz;

namespace {

class Arguments {
 public:
  Arguments(const uint8_t* data, size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

  uint8_t byte() {
    if (rest_.empty()) return 0;
    const uint8_t value = static_cast<uint8_t>(rest_.front());
    rest_.remove_prefix(1);
    return value;
  }
  bool flag() { return (byte() & 1) != 0; }
  // A text of up to 255 bytes, kept for the call.
  const std::string& text() {
    const size_t wanted = byte();  // taken before the size it is held to
    const size_t length = std::min(wanted, rest_.size());
    texts_.emplace_back(rest_.substr(0, length));
    rest_.remove_prefix(length);
    return texts_.back();
  }
  // A text as (pointer, length): null or not, the length true or not.
  std::pair<const char*, int32_t> counted() {
    const std::string& value = text();
    switch (byte() % 6) {
      case 0: return {nullptr, 0};
      case 1: return {nullptr, INT32_MAX};
      case 2: return {value.data(), -1 - byte()};
      case 3: return {value.data(), INT32_MIN};
      case 4: return {value.data(), static_cast<int32_t>(value.size() * byte() / 255)};
      default: return {value.data(), static_cast<int32_t>(value.size())};
    }
  }
  std::pair<const unsigned char*, int32_t> data() {
    const auto [pointer, length] = counted();
    return {reinterpret_cast<const unsigned char*>(pointer), length};
  }

 private:
  std::string_view rest_;
  std::list<std::string> texts_;  // stable addresses
};

// Records from the input: ids, profiles and PINs with the lengths as given.
SsfInfo* record(Arguments& in, Records& list) {
  const auto [id, id_length] = in.counted();
  const auto [profile, profile_length] = in.counted();
  const auto [pin, pin_length] = in.counted();
  SsfInfo* info = nullptr;
  if (SsfNEWSigRcpSsfInfo(id, id_length, nullptr, 0, profile, profile_length, pin, pin_length, 0, &info) != SSF_OK)
    return nullptr;
  SsfINSSigRcpSsfInfo(info, list.address());
  return info;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  world();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  Arguments in(bytes, size);
  Output out;
  unsigned char** out_data = in.flag() ? nullptr : &out.data;
  uint32_t* out_length = in.flag() ? nullptr : &out.length;
  const auto [format, format_length] = in.counted();
  Records list;
  switch (in.byte() % 12) {
    case 0: {
      char* version = nullptr;
      uint32_t version_length = 0;
      if (SsfVersion(in.flag() ? nullptr : &version, in.flag() ? nullptr : &version_length) == SSF_OK)
        std::free(version);
      break;
    }
    case 1: {
      const auto [name, name_length] = in.counted();
      SsfQueryProperties(name, name_length, nullptr, 0, reinterpret_cast<char**>(out_data), out_length);
      break;
    }
    case 2: {
      const auto [input, input_length] = in.data();
      if (in.flag())
        SsfEncode(format, format_length, input, input_length, out_data, out_length);
      else
        SsfDecode(format, format_length, input, input_length, out_data, out_length);
      break;
    }
    case 3: {
      const bool certs = in.flag(), detached = in.flag();
      for (int n = in.byte() % 3; n > 0; --n) record(in, list);
      const auto [input, input_length] = in.data();
      SsfSign(format, format_length, nullptr, 0, certs, detached, input, input_length, list.list(), out_data, out_length);
      break;
    }
    case 4: {
      const auto [message, message_length] = in.data();
      const auto [input, input_length] = in.data();
      const auto [pab, pab_length] = in.counted();
      SsfVerify(format, format_length, 0, message, message_length, input, input_length, pab, pab_length, nullptr, 0,
                in.flag() ? nullptr : list.address(), out_data, out_length);
      break;
    }
    case 5: {
      const auto [algorithm, algorithm_length] = in.counted();
      const auto [input, input_length] = in.data();
      const auto [pab, pab_length] = in.counted();
      for (int n = in.byte() % 3; n > 0; --n) record(in, list);
      SsfEnvelope(format, format_length, algorithm, algorithm_length, input, input_length, pab, pab_length, nullptr, 0,
                  list.list(), out_data, out_length);
      break;
    }
    case 6: {
      const auto [message, message_length] = in.data();
      SsfInfo* info = in.flag() ? nullptr : record(in, list);
      SsfDevelope(format, format_length, message, message_length, info, out_data, out_length);
      break;
    }
    case 7: {
      const bool certs = in.flag();
      const auto [message, message_length] = in.data();
      const auto [input, input_length] = in.data();
      SsfInfo* info = in.flag() ? nullptr : record(in, list);
      SsfAddSign(format, format_length, nullptr, 0, certs, message, message_length, input, input_length, info, out_data,
                 out_length);
      break;
    }
    case 8: {
      const bool detached = in.flag();
      const auto [input, input_length] = in.data();
      const auto [algorithm, algorithm_length] = in.counted();
      SsfDigest(format, format_length, detached, input, input_length, algorithm, algorithm_length, out_data, out_length);
      break;
    }
    case 9: {
      SsfInfo* info = record(in, list);
      SsfPRISigRcpSsfInfo(in.flag() ? nullptr : info, reinterpret_cast<char**>(out_data), out_length);
      break;
    }
    case 10: {
      for (int n = in.byte() % 4; n > 0; --n) record(in, list);
      SsfPRISigRcpSsfInfoList(in.flag() ? nullptr : list.list(), reinterpret_cast<char**>(out_data), out_length);
      break;
    }
    default: {
      SsfInfo* info = record(in, list);
      // Already in the list: only the refusals are asked for.
      SsfINSSigRcpSsfInfo(nullptr, list.address());
      SsfINSSigRcpSsfInfo(info, nullptr);
      SsfDELSigRcpSsfInfo(nullptr);
      SsfDELSigRcpSsfInfoList(nullptr);
      SsfDELSsfOctetstring(nullptr, nullptr);
      break;
    }
  }
  return 0;
}
