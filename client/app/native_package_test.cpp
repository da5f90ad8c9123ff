#include "client/app/native_package.hpp"

#include <gtest/gtest.h>

#include "tests/support/sample_launcher.hpp"
#include "tests/support/theme_support.hpp"

namespace zorvi {
namespace {

namespace fs = std::filesystem;
using testing::outcome;
using testing::TempDir;
using testing::write_text;

// Re-signs the repository's root, to expire a second ago, into the file named.
constexpr const char* expired_root_script = R"(
import datetime, pickle, sys
from cryptography.hazmat.primitives.serialization import load_pem_private_key
from securesystemslib.signer import CryptoSigner
st = pickle.load(open(sys.argv[1], 'rb')); root = st['md']['root']
root.signed.expires = datetime.datetime.now(datetime.timezone.utc).replace(microsecond=0) - datetime.timedelta(seconds=1); root.signatures.clear()
for key in st['keys']['root']: root.sign(CryptoSigner(load_pem_private_key(key, None)), append=True)
open(sys.argv[2], 'wb').write(root.to_bytes())
)";

// A branded package, with theme and featured game, built from a repository
// of one bootstrap and one launcher release by the real builder.
class NativePackageTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    shared = new testing::SamplePackage("b1");
    const fs::path brand = shared->dir / "brand.json", icon = shared->dir / "brand.ico";
    testing::write_good_theme(shared->dir / "theme", "banner.bmp:64:32:24:0");
    write_text(brand, R"({"name": "Acme Games", "id": "acme", "publisher": "Acme"})");
    // One 1x1 entry of 32 bits, 4 bytes at offset 22.
    write_text(icon, std::string("\0\0\1\0\1\0\1\1\0\0\1\0\x20\0\4\0\0\0\x16\0\0\0", 22) + std::string(4, '\0'));
    const testing::CommandResult built = shared->build(
        "https://127.0.0.1:8443", {"--brand", brand.string(), "--icon", icon.string(), "--theme",
                                   (shared->dir / "theme").string(), "--featured-game", "demo", std::string(80, 'n')});
    ASSERT_EQ(built.status, 0) << built.err;
  }
  static void TearDownTestSuite() { delete shared; }
  static inline testing::SamplePackage* shared = nullptr;
};

TEST_F(NativePackageTest, BuilderSealsWhatTheReaderProves) {
  EXPECT_EQ(shared->seal, digest(testing::read_text(shared->package / "initial-package.json"), "sha256"));
  const NativePackage package = read_native_package(shared->package, shared->seal, {});
  EXPECT_EQ(package.ca_bundle, testing::read_text(shared->repository.server->ca_bundle()));
  ASSERT_TRUE(package.theme && package.featured_game);

  EXPECT_EQ(package_brand(shared->package, shared->seal), (Brand{"Acme Games", "acme", "Acme", true}));
  EXPECT_EQ(package_brand_icon(shared->package, shared->seal)->size(), 26u);
  EXPECT_EQ(package_theme(shared->package, shared->seal)->accent_hover, (Rgb{0x2d, 0x6c, 0xd6}));
  EXPECT_EQ(package_featured_game(shared->package, shared->seal)->id, "demo");
  EXPECT_EQ(outcome([&] { read_native_package(shared->package, shared->seal, [](auto, auto) { return false; }); }),
            "cancelled: File verification cancelled");
}

// A copy of the built package with one thing changed, and sealed again
// unless the row says otherwise.
struct Edit {
  fs::path dir;
  json descriptor;
  std::string seal;
  bool reseal = true;

  // New bytes for the file a descriptor resource names, described truly.
  void replace(const json::json_pointer& at, const std::string& bytes) {
    write_text(dir / descriptor[at]["path"].get<std::string>(), bytes);
    descriptor[at]["length"] = bytes.size();
    descriptor[at]["sha256"] = digest(bytes, "sha256");
  }
  // The manifest resource `name` rewritten with the value at `at` changed.
  void change(const std::string& name, const json::json_pointer& at, const json& value) {
    json manifest = parse_json(testing::read_text(dir / descriptor[name]["path"].get<std::string>()), 1 << 20);
    manifest[at] = value;
    replace(json::json_pointer("/" + name), manifest.dump());
  }
};

// Moves `name` aside and leaves a symbolic link to it in its place.
void linked(const fs::path& name) {
  fs::rename(name, name.string() + ".real");
  fs::create_symlink(name.filename().string() + ".real", name);
}

// Each row changes a copy of the built package; the full reader proves it
// unless the row names the theme or icon reader.
TEST_F(NativePackageTest, EachFailureRowIsReached) {
  enum Reader { full, theme, icon };
  struct Row {
    std::function<void(Edit&)> change;
    std::string expected;
    Reader reader = full;
  };
  const auto patch = [](const char* text) { return [p = json::parse(text)](Edit& e) { e.descriptor.merge_patch(p); }; };
  const std::string bad = "invalid_native_package: ", trust = "native_install_trust: ", big = "size_limit: ",
                    other = "launcher_incompatible: ", changed = "content_mismatch: ";
  const Row rows[] = {
      {[](Edit& e) { e.seal = ""; },
       trust + "This installer has no package seal; build it with ZORVI_INITIAL_PACKAGE_SHA256"},
      {[](Edit& e) { e.seal = "x"; }, trust + "This installer has no package seal", theme},
      {[](Edit& e) { e.descriptor["origin"] = "https://127.0.0.1:8444", e.reseal = false; },
       trust + "This package is not the one this installer was built for"},
      {[](Edit& e) { linked(e.dir); }, bad + "Choose an initial package directory"},
      {patch(R"({"origin": 443})"), bad + "Initial package metadata is malformed"},
      {patch(R"({"ca_bundle": null})"), bad + "Initial package record has unknown or missing fields"},
      {patch(R"({"root": {"length": -1}})"), bad + "Resource length must be an unsigned integer"},
      {patch(R"({"root": {"sha256": "AB"}})"), bad + "Resource hash must be a lowercase SHA-256 digest"},
      {patch(R"({"root": {"path": "initial-package.json"}})"),
       bad + "Initial package resources need distinct flat names"},
      {[](Edit& e) { e.descriptor["ca_bundle"] = e.descriptor["root"]; }, bad + "Initial package resources overlap"},
      {[](Edit& e) { write_text(e.dir / ".DS_Store", ""); },
       bad + "Initial package contains an unexpected entry: .DS_Store"},
      {[](Edit& e) { fs::remove(e.dir / "bootstrap-b1.tar.zst"); }, bad + "Initial package is missing a resource"},
      {[](Edit& e) { linked(e.dir / "root.json"); }, bad + "Initial package resource is missing or not a plain file"},
      {[](Edit& e) { e.replace("/brand/icon"_json_pointer, std::string("\0\0\1\0", 4) + std::string(17, 'i')); },
       bad + "The brand icon is not an .ico file"},
      {patch(R"({"brand": {"colour": "red"}})"), bad + "Brand has unknown or missing fields"},
      {patch(R"({"brand": {"theme": {"files": []}}})"), bad + "Brand theme files must be an object"},
      {patch(R"({"brand": {"theme": {"definition": {"path": "root.json"}}}})"),
       bad + "Brand theme definition must be theme.json"},
      {patch(R"({"brand": {"theme": {"files": {"icon.bmp": {"path": "theme-banner.bmp"}}}}})"),
       bad + "Brand theme files are stored as theme-NAME"},
      {patch(R"({"brand": {"theme": {"files": {"LICENSE.txt": null}}}})"),
       bad + "Brand theme files differ from its definition", theme},
      {patch(R"({"featured_game": {"name": null}})"), bad + "Featured game must name an id and a display name"},
      {[](Edit& e) { e.descriptor["featured_game"]["name"] = std::string(81, 'n'); },
       bad + "Featured game name must be 1 to 80 bytes"},
      {patch(R"({"schema_version": 2})"), "unsupported_schema: Unsupported initial package schema"},
      {patch(R"({"platform": "macos-aarch64"})"), other + "This package is for another platform"},
      {[](Edit& e) { e.change("launcher_manifest", "/platform"_json_pointer, "macos-aarch64"); },
       other + "Package images are for another platform"},
      {patch(R"({"origin": "https://127.0.0.1:8443/zorvi"})"),
       "invalid_origin: The package origin must be a plain HTTPS origin"},
      {[](Edit& e) {
         testing::run_python(expired_root_script,
                             {(shared->repository.repo / "state.pickle").string(), e.dir / "root.json"});
         e.replace("/root"_json_pointer, testing::read_text(e.dir / "root.json"));
       },
       "expired_metadata: The initial package's TUF root has expired"},
      {patch(R"({"root": {"length": 0}})"), big + "Initial package resource exceeds its size limit"},
      {[](Edit& e) { e.change("bootstrap_manifest", "/archive/length"_json_pointer, (1u << 30) + 1u); },
       big + "Initial package payload is too large"},
      {[](Edit& e) {
         for (auto& [name, file] : e.descriptor["brand"]["theme"]["files"].items()) file["length"] = 4194304;
       },
       big + "Brand theme files exceed 16 MiB together", theme},
      {[](Edit& e) { e.descriptor["root"]["length"] = e.descriptor["root"]["length"].get<int>() + 1; },
       changed + "Initial package resource has the wrong length"},
      {[](Edit& e) {
         std::string a = testing::read_text(e.dir / "launcher-b1.tar.zst");
         a.back() ^= 1;
         write_text(e.dir / "launcher-b1.tar.zst", a);
       },
       changed + "Initial package resource changed: launcher-b1.tar.zst"},
      {[](Edit& e) { write_text(e.dir / "brand.ico", std::string(26, 'x')); },
       changed + "Initial package icon differs from its descriptor", icon},
  };
  for (const auto& [change, expected, reader] : rows) {
    TempDir dir;
    Edit edit{dir / "package", parse_json(testing::read_text(shared->package / "initial-package.json"), 1 << 20),
              shared->seal};
    fs::copy(shared->package, edit.dir, fs::copy_options::recursive);
    change(edit);
    write_text(fs::canonical(edit.dir) / "initial-package.json", edit.descriptor.dump());
    if (edit.reseal && edit.seal == shared->seal) edit.seal = digest(edit.descriptor.dump(), "sha256");
    EXPECT_EQ(outcome([&] {
                if (reader == full) read_native_package(edit.dir, edit.seal, {});
                if (reader == theme) package_theme(edit.dir, edit.seal);
                if (reader == icon) package_brand_icon(edit.dir, edit.seal);
              }),
              expected);
  }
}

}  // namespace
}  // namespace zorvi
