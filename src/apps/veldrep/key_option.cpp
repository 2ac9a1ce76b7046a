#include "apps/veldrep/key_option.h"

#include <filesystem>
#include <memory>

#include "host/platform/file.h"
#include "host/signature/ed25519_verifier.h"

namespace veld_report::app {
namespace {

struct NamedFile {
  std::string name, path;
};

NamedFile ReadName(const std::string& given) {
  const std::size_t equals = given.find('=');
  // An equals sign behind a slash is part of a path.
  if (equals != std::string::npos && given.find('/') > equals)
    return {given.substr(0, equals), given.substr(equals + 1)};
  std::string name = host::Utf8(host::FromUtf8(given).filename());
  for (const std::string_view end : {".pem", ".pub"}) {
    if (name.ends_with(end)) name.resize(name.size() - end.size());
  }
  return {name, given};
}

}  // namespace

KeyRing ReadKeys(const std::vector<std::string>& given) {
  KeyRing ring;
  std::vector<host::Ed25519Verifier> verifiers;
  std::map<std::string, std::string> pathByName;
  for (const std::string& each : given) {
    const NamedFile file = ReadName(each);
    if (file.name.empty() || file.path.empty())
      throw WrongCommandLine("--key " + each + ": expected NAME=FILE or FILE");
    if (!pathByName.emplace(file.name, file.path).second)
      throw WrongCommandLine("--key " + each + ": the name " + file.name + " is given twice");
    const auto key = host::Ed25519Key::PublicFromFile(file.path);
    const auto [known, isNew] = ring.names.emplace(key.KeyId(), file.name);
    if (!isNew) throw WrongCommandLine("--key " + each + ": the same key as " + pathByName[known->second]);
    verifiers.emplace_back(key);
  }
  if (verifiers.empty()) return ring;
  ring.verifier = [verifiers](std::string_view payload, std::string_view block) {
    std::string problem;
    for (const host::Ed25519Verifier& each : verifiers) {
      problem = each.Check(payload, block);
      if (problem != host::Ed25519Verifier::otherKey) break;
    }
    return problem;
  };
  return ring;
}

std::string DescribeKeys(const KeyRing& keys) {
  if (keys.names.empty()) return "signatures: none required";
  std::map<std::string, std::string> ids;
  for (const auto& [id, name] : keys.names) ids[name] = id;
  std::string text;
  for (const auto& [name, id] : ids) {
    text.append(text.empty() ? "signatures: required, of " : " or ").append(name);
    text.append(" (").append(id).append(")");
  }
  return text;
}

void WarnIfOthersCanRead(const std::string& option, const std::string& path) {
  const std::string why = host::WhyOthersCanRead(host::FromUtf8(path));
  if (!why.empty())
    Complain("warning: " + option + " " + path + ": other users can read this private key " + why);
}

}  // namespace veld_report::app
