// Built with AVX-512 enabled so the streaming parser uses its icelake
// implementation; only called when the CPU has those.
#define HVFP_LISTING_NS listing_icelake
#include "records/FileItemListingImpl.h"
