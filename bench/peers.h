// Peer libraries measured beside oku on the same audio: WebRTC's VAD and its
// legacy analog AGC (libwebrtc-audio-processing), speexdsp's preprocessor.
#ifndef OKU_BENCH_PEERS_H
#define OKU_BENCH_PEERS_H

#include <cstddef>
#include <cstdint>

extern "C" {
// WebRTC's VAD and legacy gain control, as the Debian package's library exports
// them (the package installs no header for these C functions).
struct WebRtcVadInst;
WebRtcVadInst* WebRtcVad_Create(void);
void WebRtcVad_Free(WebRtcVadInst* handle);
int WebRtcVad_Init(WebRtcVadInst* handle);
int WebRtcVad_set_mode(WebRtcVadInst* handle, int mode);
int WebRtcVad_Process(WebRtcVadInst* handle, int fs, const int16_t* audio_frame, size_t frame_length);

void* WebRtcAgc_Create(void);
void WebRtcAgc_Free(void* agcInst);
int WebRtcAgc_Init(void* agcInst, int32_t minLevel, int32_t maxLevel, int16_t agcMode, uint32_t fs);
int WebRtcAgc_AddMic(void* agcInst, int16_t* const* inMic, size_t num_bands, size_t samples);
int WebRtcAgc_Process(void* agcInst, const int16_t* const* inNear, size_t num_bands, size_t samples,
                      int16_t* const* out, int32_t inMicLevel, int32_t* outMicLevel, int16_t echo,
                      uint8_t* saturationWarning);
}

// The legacy AGC's analog mode.
const int16_t kWebRtcAgcModeAdaptiveAnalog = 1;

#endif
