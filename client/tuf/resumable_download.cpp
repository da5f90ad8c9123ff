#include <algorithm>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>

#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/allocated_file.hpp"
#include "client/platform/files.hpp"
#include "client/platform/native_platform.hpp"
#include "client/platform/posix_files.hpp"
#include "client/platform/tree.hpp"
#include "client/tuf/metadata.hpp"
#include "client/tuf/tuf.hpp"

namespace zorvi {
namespace {

constexpr std::size_t max_scope = 4096;
// One file synchronisation per checkpoint: often enough that a crash loses
// little, rarely enough that it does not dominate the transfer.
constexpr std::uint64_t checkpoint_interval = 8ULL * 1024 * 1024;
constexpr std::size_t max_markers = 32;
constexpr std::size_t max_scanned_entries = 4096;
constexpr std::size_t max_marker = 16384;
constexpr std::size_t nonce_length = 32;
constexpr std::string_view marker_suffix = ".partial.resume.json";

[[noreturn]] void capacity_reached() {
  throw Error("download_resume_capacity", "Retained partial downloads reached their capacity");
}

void check_resume_state(const json& state, std::string_view temporary) {
  const auto text = [&](const char* name) { return state.contains(name) && state.at(name).is_string(); };
  const auto unsigned_at = [&](const json& value) { return value.is_number_unsigned(); };
  const bool known = state.is_object() && state.size() == 9 && state.contains("schema_version") &&
                     state.at("schema_version").is_number_integer() && state.at("schema_version") == 1 &&
                     state.contains("kind") && state.at("kind") == "zorvi-target-resume" && text("target") &&
                     text("temporary") && state.at("temporary") == temporary && text("scope_sha256") &&
                     is_lower_hex(state.at("scope_sha256").get_ref<const std::string&>(), 64) &&
                     text("prefix_sha256") &&
                     is_lower_hex(state.at("prefix_sha256").get_ref<const std::string&>(), 64) &&
                     state.contains("received") && unsigned_at(state.at("received")) && state.contains("identity") &&
                     state.at("identity").is_array() && state.at("identity").size() == 2 &&
                     std::all_of(state.at("identity").begin(), state.at("identity").end(), unsigned_at);
  require(known, "download_resume_state",
          "Unknown partial-download state was preserved; clear the disposable cache to retry");

  const json& authorization = state.at("authorization");
  const bool bounded = authorization.is_object() && authorization.size() == 2 && authorization.contains("length") &&
                       unsigned_at(authorization.at("length")) && authorization.contains("hashes") &&
                       authorization.at("hashes").is_object() && !authorization.at("hashes").empty() &&
                       state.at("received").get<std::uint64_t>() <= authorization.at("length").get<std::uint64_t>();
  require(bounded, "download_resume_state", "Invalid partial-download bounds");

  const std::string& target = state.at("target").get_ref<const std::string&>();
  validate_relative_path(target, false);
  const bool named = temporary.size() == target.size() + 1 + nonce_length + 8 && temporary.starts_with(target) &&
                     temporary[target.size()] == '.' &&
                     is_lower_hex(temporary.substr(target.size() + 1, nonce_length), nonce_length);
  require(named, "download_resume_state", "Partial-download nonce differs from its path");
}

struct Marker {
  std::string temporary;  // the staging name it describes
  json state;
  std::string text;  // the bytes read, which later checkpoints must find unchanged
};

// One resumable transfer of a target into a staging file beside its final
// name, with a marker that records how many bytes are durable and their hash.
class ResumableTarget {
 public:
  ResumableTarget(const std::filesystem::path& destination, std::string target, const json& file,
                  const std::filesystem::path& final_path, const TufDownloadOptions& options, const Progress& progress,
                  const TargetObserver& observer)
      : destination_(destination),
        target_(std::move(target)),
        file_(file),
        final_(final_path),
        options_(options),
        progress_(progress),
        observer_(observer),
        authorization_({{"length", length(file)}, {"hashes", file.at("hashes")}}),
        scope_sha256_(digest(options.scope, "sha256")),
        digest_(std::make_unique<DigestState>("sha256")) {}

  void run(Transport& transport, const std::string& remote, const std::string& staging) {
    if (std::optional<Marker> marker = scan()) resume(*marker);
    else start(staging);
    try {
      transfer(transport, remote);
    } catch (const Error& error) {
      recover(error);
      throw;
    }
    notify("complete", "");
  }

 private:
  std::filesystem::path join(const std::string& name) const { return safe_join(destination_, name, false); }

  void notify(std::string_view event, std::string_view name) const {
    if (observer_) observer_(event, file_, name);
  }

  void storage(const TargetStorageRequest& request) const {
    if (options_.on_storage) options_.on_storage(request);
  }

  std::optional<Marker> scan() const {
    const std::filesystem::path parent = final_.parent_path();
    const std::string base = path_utf8(final_.filename()) + ".";
    std::size_t entries = 0;
    std::size_t markers = 0;
    std::optional<Marker> best;
    std::error_code error;
    for (std::filesystem::directory_iterator it(parent, error), end; !error && it != end; it.increment(error)) {
      require(++entries <= max_scanned_entries, "size_limit", "Download directory exceeds its bounded resume scan");
      const std::string name = path_utf8(it->path().filename());
      if (!name.starts_with(base) || !name.ends_with(marker_suffix)) continue;
      if (++markers > max_markers) capacity_reached();
      const std::string nonce = name.substr(base.size(), nonce_length);
      require(name.size() == base.size() + nonce_length + marker_suffix.size() && is_lower_hex(nonce, nonce_length),
              "download_resume_state", "Unknown resume filename was preserved");
      Marker marker{target_ + "." + nonce + ".partial", json(), read_file(it->path(), max_marker)};
      marker.state = parse_json(marker.text, max_marker);
      validate_target_resume_state(marker.state, marker.temporary);
      // Markers of another scope or of other metadata belong to someone else.
      if (marker.state.at("target") != target_ || marker.state.at("authorization") != authorization_ ||
          marker.state.at("scope_sha256") != scope_sha256_ || !entry_present(join(marker.temporary)))
        continue;
      if (!best || marker.state.at("received").get<std::uint64_t>() > best->state.at("received").get<std::uint64_t>())
        best = std::move(marker);
    }
    if (error) throw Error("file_read", with_errno("Cannot list " + path_utf8(parent), error.value()));
    if (!best && markers >= max_markers) capacity_reached();
    return best;
  }

  // The kept prefix counts only if its hash is still the one recorded after
  // those bytes were made durable; whatever happened to the file since, that
  // is the whole proof. A mismatch leaves everything where it is.
  void resume(const Marker& marker) {
    temporary_ = marker.temporary;
    marker_path_ = join(temporary_ + ".resume.json");
    const std::uint64_t received = marker.state.at("received").get<std::uint64_t>();
    FileReservation reservation;
    reservation.path = join(temporary_);
    reservation.length = length(file_);
    reservation.device = marker.state.at("identity").at(0).get<std::uint64_t>();
    reservation.inode = marker.state.at("identity").at(1).get<std::uint64_t>();
    data_.emplace(reservation, received);
    data_->read_prefix(received, [this](std::string_view bytes) { digest_->update(bytes); }, progress_);
    require(digest_->value() == marker.state.at("prefix_sha256").get_ref<const std::string&>(),
            "download_resume_changed", "Recorded partial bytes changed");
    hashed_ = received;
    checkpointed_ = received;
    last_text_ = marker.text;
    notify("resumed", temporary_);
    storage({final_.parent_path(), false, true, received, data_->allocated_bytes(), data_->size()});
    data_->reserve_remaining();
  }

  void start(const std::string& staging) {
    temporary_ = staging;
    marker_path_ = join(temporary_ + ".resume.json");
    notify("prepared", temporary_);
    storage({final_.parent_path(), false, false, 0, 0, 0});
    data_.emplace(join(temporary_), length(file_), ReservationObserver());
  }

  // A marker that cannot be read fails with the read's own error.
  bool marker_unchanged() const { return read_file(marker_path_, max_marker) == last_text_; }

  // The file's bytes are made durable before the marker that describes them.
  void checkpoint() {
    require(hashed_ == data_->written(), "download_resume_state", "Partial write did not complete a hash checkpoint");
    data_->synchronize();
    const FileReservation reservation = data_->reservation();
    const json state = {{"schema_version", 1},
                        {"kind", "zorvi-target-resume"},
                        {"target", target_},
                        {"temporary", temporary_},
                        {"authorization", authorization_},
                        {"scope_sha256", scope_sha256_},
                        {"identity", json::array({reservation.device, reservation.inode})},
                        {"received", hashed_},
                        {"prefix_sha256", digest_->value()}};
    std::string text = state.dump();
    require(text.size() <= max_marker, "size_limit", "Partial-download state exceeds its bound");
    if (last_text_.empty()) {
      atomic_create(marker_path_, text);
    } else {
      // One download runs per client under its lock: a marker that changed
      // underneath is somebody else's doing.
      require(marker_unchanged(), "download_resume_changed", "Resume marker changed before checkpoint");
      atomic_write(marker_path_, text);
    }
    last_text_ = std::move(text);
    checkpointed_ = hashed_;
    data_->preserve();
  }

  void retire() {
    if (last_text_.empty()) return;
    require(marker_unchanged(), "download_resume_changed", "Resume marker changed before retirement");
    std::error_code error;
    std::filesystem::remove(marker_path_, error);
    if (error) throw Error("file_remove", with_errno("Cannot remove " + path_utf8(marker_path_), error.value()));
    last_text_.clear();
    sync_directory(marker_path_.parent_path());
  }

  void received(std::string_view bytes) {
    digest_->update(bytes);
    hashed_ += bytes.size();
    if (hashed_ - checkpointed_ >= checkpoint_interval) checkpoint();
  }

  // The server ignored the range and sent the whole file from its start.
  void restarted() {
    digest_ = std::make_unique<DigestState>("sha256");
    hashed_ = 0;
    checkpointed_ = 0;
    checkpoint();
  }

  std::string file_digest(const std::string& name) {
    if (name == "sha256") return digest_->value();
    // Only a second algorithm costs a second pass over the file.
    DigestState other(name);
    data_->read_prefix(data_->written(), [&](std::string_view bytes) { other.update(bytes); }, progress_);
    return other.value();
  }

  void transfer(Transport& transport, const std::string& remote) {
    checkpoint();
    const std::uint64_t size = length(file_);
    if (hashed_ < size || size == 0)
      transport.download_into(
          remote, *data_, hashed_, progress_, [this](std::string_view bytes) { received(bytes); },
          [this] { restarted(); });
    checkpoint();
    require(data_->written() == size, "length_mismatch", "Downloaded target is shorter than its signed length");
    for (const auto& item : file_.at("hashes").items())
      require(file_digest(item.key()) == item.value().get_ref<const std::string&>(), "hash_mismatch",
              "Target hash does not match signed metadata");
    data_->finish(true);
    native_files::rename_replace(join(temporary_), final_);
    sync_directory(final_.parent_path());
    retire();
  }

  // Bytes that cannot be right are thrown away with their marker. Anything
  // else keeps what is durable: a last checkpoint when every written byte was
  // hashed, else the previous checkpoint as it stands, whose `received` the
  // next attempt reads up to and no further.
  void recover(const Error& error) {
    if (error.code == "hash_mismatch" || error.code == "length_mismatch" || error.code == "size_limit") {
      data_->discard();
      retire();
      return;
    }
    if (hashed_ != data_->written()) return;
    try {
      checkpoint();
      data_->finish(false);
    } catch (const Error&) {
      // The original failure is the one to report; the marker on disk still
      // describes durable bytes.
    }
  }

  const std::filesystem::path& destination_;
  const std::string target_;
  const json& file_;
  const std::filesystem::path& final_;
  const TufDownloadOptions& options_;
  const Progress& progress_;
  const TargetObserver& observer_;
  const json authorization_;
  const std::string scope_sha256_;
  std::unique_ptr<DigestState> digest_;
  std::optional<AllocatedFile> data_;
  std::string temporary_;
  std::filesystem::path marker_path_;
  std::uint64_t hashed_ = 0;
  std::uint64_t checkpointed_ = 0;
  std::string last_text_;  // the marker as this process last wrote or accepted it
};

// The final file counts if it verifies; a cancelled check stops the download.
bool verified_in_place(const std::filesystem::path& path, const json& file, const Progress& progress) {
  if (!entry_present(path)) return false;
  try {
    verify_target_file(path, file, progress);
    return true;
  } catch (const Error& error) {
    if (error.code == "cancelled") throw;
    return false;
  }
}

}  // namespace

void validate_target_resume_state(const json& state, std::string_view temporary) {
  try {
    check_resume_state(state, temporary);
  } catch (const json::exception&) {
    throw Error("download_resume_state", "Malformed partial-download state was preserved");
  }
}

// With consistent snapshots a target is fetched by its first hash, placed
// before the last path component, so that a file never changes under a name.
std::string TufClient::remote_target(std::string_view path, const json& file) const {
  if (!consistent_snapshot()) return std::string(path);
  const auto slash = path.rfind('/');
  const std::size_t at = slash == std::string_view::npos ? 0 : slash + 1;
  const std::string& first = file.at("hashes").begin()->get_ref<const std::string&>();
  return std::string(path.substr(0, at)) + first + "." + std::string(path.substr(at));
}

std::filesystem::path TufClient::download(std::string_view path, const std::filesystem::path& destination,
                                          const Progress& progress, const TargetObserver& observer,
                                          const TufDownloadOptions& options) {
  require(options.scope.size() <= max_scope, "size_limit", "Download resume scope exceeds its bounded contract");
  const json file = target(path);
  const std::filesystem::path final_path = safe_join(destination, path, false);
  const std::filesystem::path parent = final_path.parent_path();
  const bool complete = verified_in_place(final_path, file, progress);
  private_directory(parent);
  if (complete) {
    if (options.on_storage) options.on_storage({parent, true, false, 0, 0, 0});
    if (observer) observer("complete", file, "");
    return final_path;
  }
  const std::string staging = std::string(path) + "." + random_id() + ".partial";
  const std::filesystem::path staging_path = safe_join(destination, staging, false);
  require(!entry_present(staging_path), "unsafe_path", "Target staging path must be unused");
  const std::string remote = remote_target(path, file);
  if (target_transport_.supports_resumption() && !options.scope.empty()) {
    ResumableTarget(destination, std::string(path), file, final_path, options, progress, observer)
        .run(target_transport_, remote, staging);
    return final_path;
  }
  if (options.on_storage) options.on_storage({parent, false, false, 0, 0, 0});
  if (observer) observer("prepared", file, staging);
  try {
    target_transport_.download(remote, staging_path, length(file), progress);
    verify_target_file(staging_path, file, progress);
    native_files::rename_replace(staging_path, final_path);
    sync_directory(parent);
  } catch (...) {
    remove_path_quietly(staging_path);
    throw;
  }
  if (observer) observer("complete", file, "");
  return final_path;
}

}  // namespace zorvi
