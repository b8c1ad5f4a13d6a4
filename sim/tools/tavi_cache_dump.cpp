// SPDX-License-Identifier: Apache-2.0
// tavi_cache_dump: shows a cache file of the daemon entry by entry: each entry's index, the
// message in its log text form and the entry's bytes. The file is only read, never changed.
//
// usage: tavi_cache_dump CACHE_FILE
#include <stdio.h>

#include <string>

#include "cache_decoder.h"

int main(int argc, char** argv) {
    if (argc != 2 || argv[1][0] == '\0') {
        fprintf(stderr, "usage: tavi_cache_dump CACHE_FILE\n");
        return 2;
    }
    std::string text;
    if (!vendor::vesk::tavi::sim::DescribeCacheFile(argv[1], &text)) {
        fprintf(stderr, "tavi_cache_dump: %s\n", text.c_str());
        return 1;
    }
    fputs(text.c_str(), stdout);
    return 0;
}
