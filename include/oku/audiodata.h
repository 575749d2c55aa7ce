// oku: the sample container shared by both services.
#ifndef OKU_AUDIODATA_H
#define OKU_AUDIODATA_H

#include <vector>

namespace oku {

// Mono signed 16-bit samples at the sampling rate of the object that receives them.
using AudioData = std::vector<short>;

}  // namespace oku

#endif
