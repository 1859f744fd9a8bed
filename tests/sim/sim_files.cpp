#include "tests/sim/sim_files.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace quorveld::sim {

using platform::EntryKind;

namespace {

std::error_code reason(std::errc code) {
  return std::make_error_code(code);
}

class SimFile final : public platform::File {
 public:
  SimFile(std::shared_ptr<MemFile> file, std::shared_ptr<int> openFiles, FaultPlan& faults)
      : file_(std::move(file)),
        openFiles_(std::move(openFiles)),
        faults_(faults),
        descriptor_(file_->open()) {
    ++*openFiles_;
  }
  ~SimFile() override {
    ::close(descriptor_);
    --*openFiles_;
  }

  int descriptor() const override { return descriptor_; }

  std::error_code write(std::string_view bytes) override {
    if (const std::error_code error = faults_.take(Op::writeFile)) return error;
    const ssize_t written = ::write(descriptor_, bytes.data(), bytes.size());
    return written == static_cast<ssize_t>(bytes.size()) ? std::error_code() : reason(std::errc::io_error);
  }

 private:
  std::shared_ptr<MemFile> file_;
  std::shared_ptr<int> openFiles_;
  FaultPlan& faults_;
  int descriptor_;
};

}  // namespace

MemFile::MemFile() : descriptor_(memfd_create("sim", MFD_CLOEXEC)) {
  if (descriptor_ < 0) std::abort();
}

MemFile::~MemFile() {
  close(descriptor_);
}

std::string MemFile::content() const {
  struct stat status {};
  fstat(descriptor_, &status);
  std::string bytes(static_cast<size_t>(status.st_size), '\0');
  if (pread(descriptor_, bytes.data(), bytes.size(), 0) != status.st_size) std::abort();
  return bytes;
}

void MemFile::setContent(std::string_view bytes) {
  if (ftruncate(descriptor_, 0) != 0 ||
      pwrite(descriptor_, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    std::abort();
  }
}

int MemFile::open() const {
  return ::open(("/proc/self/fd/" + std::to_string(descriptor_)).c_str(), O_RDWR | O_CLOEXEC);
}

SimFiles::SimFiles(FaultPlan& faults, platform::Clock& clock) : faults_(faults), clock_(clock) {
  for (const char* path : {"", "/var", "/var/root", "/var/root/Library", "/var/root/Library/Caches",
                           "/Library", "/Library/Logs", "/Library/Logs/Faultkeep"}) {
    entries_[path] = {};
  }
}

std::string SimFiles::plain(const std::string& path) {
  std::string kept;
  for (const char c : path) {
    if (c != '/' || kept.empty() || kept.back() != '/') kept += c;
  }
  return kept;
}

bool SimFiles::parentExists(const std::string& path) const {
  const auto parent = entries_.find(path.substr(0, path.rfind('/')));
  return parent != entries_.end() && !parent->second.file && !parent->second.link;
}

EntryKind SimFiles::kind(const std::string& given) {
  const std::string path = plain(given);
  const auto entry = entries_.find(path);
  if (entry == entries_.end()) return EntryKind::missing;
  return entry->second.file || entry->second.link ? EntryKind::other : EntryKind::directory;
}

std::error_code SimFiles::makeDirectory(const std::string& given, unsigned mode) {
  const std::string path = plain(given);
  if (const std::error_code error = faults_.take(Op::makeDirectory)) return error;
  if (entries_.contains(path)) return reason(std::errc::file_exists);
  if (!parentExists(path)) return reason(std::errc::no_such_file_or_directory);
  entries_[path].mode = mode;
  history_.push_back("mkdir " + path);
  return {};
}

std::error_code SimFiles::remove(const std::string& given) {
  const std::string path = plain(given);
  if (const std::error_code error = faults_.take(Op::remove)) return error;
  if (kind(path) == EntryKind::missing) return reason(std::errc::no_such_file_or_directory);
  if (kind(path) == EntryKind::directory) return reason(std::errc::is_a_directory);
  entries_.erase(path);
  history_.push_back("remove " + path);
  return {};
}

std::vector<platform::FileInfo> SimFiles::regularFiles(const std::string& given) {
  const std::string directory = plain(given);
  std::vector<platform::FileInfo> files;
  for (const std::string& name : list(directory)) {
    const std::string path = directory + "/" + name;
    if (const auto bytes = content(path)) files.push_back({name, bytes->size(), entries_[path].modified});
  }
  return files;
}

std::unique_ptr<platform::File> SimFiles::createProtected(const std::string& given, std::error_code& error) {
  const std::string path = plain(given);
  error = faults_.take(Op::createFile);
  if (!error && !parentExists(path)) error = reason(std::errc::no_such_file_or_directory);
  if (!error && kind(path) == EntryKind::directory) error = reason(std::errc::is_a_directory);
  Entry* entry = error ? nullptr : &entries_[path];
  if (entry && entry->link) error = reason(std::errc::too_many_symbolic_link_levels);
  if (error) return nullptr;
  if (!entry->file) {
    *entry = {.file = std::make_shared<MemFile>(), .mode = 0644, .modified = clock_.wallTime()};
    history_.push_back("create " + path);
  }
  return std::make_unique<SimFile>(entry->file, openFiles_, faults_);
}

void SimFiles::finish(std::unique_ptr<platform::File> file, const std::string& from, const std::string& to,
                      std::function<void(std::error_code)> done) {
  file.reset();
  std::error_code error = faults_.take(Op::closeFile);
  // What the system hadn't written yet is lost then.
  if (error && content(from)) putFile(from, content(from)->substr(0, content(from)->size() / 2));
  if (!error) error = move(from, to);
  if (error) static_cast<void>(remove(from));
  done(error);
}

std::error_code SimFiles::move(const std::string& givenFrom, const std::string& givenTo) {
  const std::string from = plain(givenFrom);
  const std::string to = plain(givenTo);
  if (const std::error_code error = faults_.take(Op::move)) return error;
  if (entries_.contains(to)) return reason(std::errc::file_exists);
  if (!entries_.contains(from) || !parentExists(to)) return reason(std::errc::no_such_file_or_directory);
  auto entry = entries_.extract(from);
  entry.key() = to;
  entries_.insert(std::move(entry));
  history_.push_back("move " + from + " " + to);
  return {};
}

std::optional<std::string> SimFiles::serializeJson(const platform::Dictionary& dictionary,
                                                   std::string& error) {
  std::optional<std::string> text;
  if (!faults_.fails(Op::serializeJson)) text = toJson(dictionary);
  if (!text) error = "a text is no UTF-8";
  return text && faults_.fails(Op::encodeJson) ? "\xFF" : text;
}

void SimFiles::putFile(const std::string& path, std::string_view content, std::chrono::seconds age) {
  Entry& entry = entries_[path];
  entry = {.file = std::make_shared<MemFile>(), .mode = 0644, .modified = clock_.wallTime() - age};
  entry.file->setContent(content);
}

std::optional<std::string> SimFiles::content(const std::string& given) const {
  const std::string path = plain(given);
  const auto entry = entries_.find(path);
  if (entry == entries_.end() || !entry->second.file) return std::nullopt;
  return entry->second.file->content();
}

std::vector<std::string> SimFiles::list(const std::string& directory) const {
  std::vector<std::string> names;
  for (const auto& [path, entry] : entries_) {
    const size_t slash = path.rfind('/');
    if (slash != std::string::npos && path.substr(0, slash) == directory)
      names.push_back(path.substr(slash + 1));
  }
  return names;
}

}  // namespace quorveld::sim
