// Built with AVX2/BMI/PCLMUL enabled so the streaming parser uses its
// haswell implementation; only called when the CPU has those.
#define HVFP_LISTING_NS listing_haswell
#include "records/FileItemListingImpl.h"
