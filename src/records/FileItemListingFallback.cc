#define HVFP_LISTING_NS listing_fallback
#include "records/FileItemListingImpl.h"
