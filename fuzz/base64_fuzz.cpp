// Compares the codec with the model. The first byte says by how many bytes the decoder's room is
// too small. The rest is a text to decode and bytes to encode.
#include <cstdlib>

#include "support/base64_model.h"

using namespace tessra_test;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string in(data + 1, data + size);
    const size_t most = in.size() / 4 * 3 + 2;
    const bool agrees = decodes_like_model(in, most - data[0] % (most + 1)) &&
                        encodes_like_model(in) && decodes_like_model(model_encode(in), in.size());
    if (!agrees) abort();
    return 0;
}
