#include "Seed.h"

#include <vector>

namespace hvfp::hostd {

namespace {

std::string pdfBytes() {
  std::string s = "%PDF-1.4\n1 0 obj << /Type /Catalog /Pages 2 0 R >> endobj\n";
  for (int i = 0; i < 2000; ++i)
    s += "BT /F1 12 Tf 72 " + std::to_string(700 - i % 600) + " Td (Annual report line) Tj ET\n";
  return s + "trailer << /Root 1 0 R >>\n%%EOF\n";
}

std::string jpegBytes(size_t size, uint64_t seed) {
  std::string s("\xFF\xD8\xFF\xE0\x00\x10JFIF\x00\x01\x01\x00\x00\x01\x00\x01\x00\x00", 20);
  std::string body(size, '\0');
  fillGenerated(body.data(), body.size(), 0, seed);
  return s + body + std::string("\xFF\xD9", 2);
}

}  // namespace

Result<Item> placeBlob(Store& store, int64_t mountId, std::string_view webpath,
                       std::string_view sha1, uint64_t size, uint64_t time) {
  auto r = store.reserve(mountId, webpath, sha1, size, time, time, false);
  if (!r.ok()) return r.failure();
  return store.commitFile(r.value());
}

Result<Item> putFile(Store& store, BlobStore& blobs, int64_t mountId, std::string_view webpath,
                     std::string_view bytes, uint64_t time) {
  auto hash = blobs.put(bytes);
  if (!hash.ok()) return hash.failure();
  return placeBlob(store, mountId, webpath, hash.value(), bytes.size(), time);
}

Result<bool> seedStore(const std::string& name, Store& store, BlobStore& blobs) {
  if (name != "sample")
    return fail(400, kBadRequest, "unknown seed '" + name + "' (known: sample)");
  if (!store.empty()) return false;
  const uint64_t t = 1700000000;
  auto docs = store.addMount("Docs", t + 500);
  auto docs2 = store.addMount("Docs", t + 900);
  auto photos = store.addMount("Photos", t + 700);
  if (!docs.ok() || !docs2.ok() || !photos.ok()) return fail(500, kStorage, "cannot add mounts");
  int64_t d = docs->id, d2 = docs2->id, p = photos->id;
  std::vector<Failure> failures;
  auto check = [&](const Result<Item>& r) {
    if (!r.ok()) failures.push_back(r.failure());
    return r.ok() ? r.value() : Item{};
  };
  check(store.makeFolder(d, "Reports", t, t));
  check(store.makeFolder(d, "Reports/2023", t, t + 10));
  check(putFile(store, blobs, d, "Reports/2023/annual.pdf", pdfBytes(), t + 20));
  check(putFile(store, blobs, d, "Reports/q1.txt", "Revenue grew in Q1.\nCosts held.\n", t + 30));
  check(putFile(store, blobs, d, "README.txt", "Welcome to Docs.\n", t + 40));
  check(putFile(store, blobs, d, "notes.md", "# Notes\n\n- call the bank\n- renew passport\n",
                t + 50));
  Item draft =
      check(putFile(store, blobs, d, "old-draft.txt", "an early draft nobody needs\n", t + 60));
  check(store.makeFolder(d2, "Shared", t, t));
  check(putFile(store, blobs, d2, "Shared/plan.txt", "Plan for the second library.\n", t + 70));
  check(putFile(store, blobs, d2, "empty.txt", "", t + 75));
  check(store.makeFolder(p, "2024", t, t));
  check(putFile(store, blobs, p, "2024/beach.jpg", jpegBytes(200 * 1024, 1), t + 80));
  check(putFile(store, blobs, p, "2024/sunset.jpg", jpegBytes(90 * 1024, 2), t + 90));
  auto big = blobs.generate(3 * 1024 * 1024 + 123, 3);
  if (!big.ok()) return big.failure();
  check(placeBlob(store, p, "clip.mov", big.value(), 3 * 1024 * 1024 + 123, t + 100));
  if (!failures.empty()) return failures.front();
  auto trashed = store.trash(d, draft.uuid);
  if (!trashed.ok()) return trashed.failure();
  return true;
}

}  // namespace hvfp::hostd
