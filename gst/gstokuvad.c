/**
 * SECTION:element-okuvad
 * @title: okuvad
 * @short_description: finds speech, posts where it starts and ends, and meters the volume
 *
 * okuvad runs the voice-activity analyzer over the audio as it comes: 16-bit
 * or float samples, as many interleaved channels as the library mixes down,
 * at every rate of oku_input_rates(), so that it needs no audioconvert or
 * audioresample in front (how the library converts: docs/c-api.md#input).
 *
 * It posts two element messages:
 *
 * * `voice-activity` where speech starts and where it ends, dated where the
 *   analyzer dates it (not at the buffer that decided it):
 *   #guint64 `stream-time`, #gboolean `stream-has-voice` (%TRUE at a start),
 *   #guint64 `running-time` and #guint64 `position` (input frames from the
 *   start of the run). An end also carries the start of its segment:
 *   #guint64 `start-position` and #guint64 `start-stream-time`.
 * * `oku-volume`, the library's meter reading (OKU_VAD_VOLUME) at most once
 *   per #GstOkuVad:interval: `stream-time`, `running-time`, `position` (the
 *   end of the audio measured), #gdouble `peak`, #gdouble `level-dbfs`,
 *   #gdouble `snr-pct`, #gchararray `assessment` (the library's name of it,
 *   oku_assessment_name()) and #gboolean `speech`. How the meter behaves is
 *   described in docs/c-api.md#the-meters-behaviours.
 *
 * Every buffer it passes carries a #GstAudioLevelMeta: its level in -dBov as
 * RFC 6464 counts it, and whether it lies in speech, which RTP payloaders
 * turn into the audio-level header extension.
 *
 * With mode=pass (the default) the audio goes through untouched and without
 * latency. With mode=gate only the 20 ms frames inside speech go on, in the
 * format they came in and with their timestamps, as late as the analyzer
 * takes to decide them; the LATENCY query says by how much.
 *
 * A buffer marked GAP, and a GAP event with a duration, is silence to the
 * analyzer, so that positions keep counting the stream's frames. So is a
 * float sample that is NaN or infinite: #GstOkuVad:nonfinite counts them,
 * and the first posts a warning. A run of
 * the analyzer lasts from the first buffer after start, a flushing seek, EOS
 * or new caps to the next of these: EOS and new caps close open speech, a
 * flush drops it. Settings and mode changed while streaming apply from the
 * next run.
 *
 * ## Example launch lines
 * |[
 * gst-launch-1.0 -m filesrc location=talk.flac ! decodebin ! okuvad ! fakesink
 * gst-launch-1.0 -m pulsesrc ! audio/x-raw,format=F32LE,rate=48000,channels=2 ! okuvad ! fakesink
 * gst-launch-1.0 pulsesrc ! okuvad mode=gate ! wavenc ! filesink location=speech.wav
 * ]|
 * With -m, gst-launch-1.0 prints the messages; the last line keeps only the
 * speech, in a WAV file.
 */
#include "gstoku.h"

#include <gst/audio/audio.h>
#include <gst/base/gstadapter.h>
#include <math.h>

GST_DEBUG_CATEGORY_STATIC(gst_oku_vad_debug);
#define GST_CAT_DEFAULT gst_oku_vad_debug

typedef enum { GST_OKU_VAD_MODE_PASS = 0, GST_OKU_VAD_MODE_GATE = 1 } GstOkuVadMode;

#define GST_TYPE_OKU_VAD_MODE (gst_oku_vad_mode_get_type())
static GType gst_oku_vad_mode_get_type(void)
{
    static GType type = 0;
    static const GEnumValue modes[] = {
        {GST_OKU_VAD_MODE_PASS, "Pass all audio through untouched", "pass"},
        {GST_OKU_VAD_MODE_GATE, "Pass only the frames inside speech", "gate"},
        {0, NULL, NULL}};
    if (g_once_init_enter(&type))
        g_once_init_leave(&type, g_enum_register_static("GstOkuVadMode", modes));
    return type;
}

#define DEFAULT_MODE GST_OKU_VAD_MODE_PASS
#define DEFAULT_INTERVAL (100 * GST_MSECOND)

/* The level meta of digital silence, and of the quietest level it can say. */
#define SILENCE_DBOV 127

enum { PROP_0, PROP_MODE, PROP_INTERVAL, PROP_NONFINITE, PROP_SETTINGS };

struct _GstOkuVad {
    GstAudioFilter parent;

    /* properties and what the LATENCY query reads (object lock) */
    GstOkuSettings settings;
    GstOkuVadMode mode;
    guint64 interval;
    gboolean running;      /* a run is under way, and latency is what it adds */
    GstClockTime latency;  /* gate mode: what the element adds, raised when a frame was held longer */
    GstClockTime answered; /* the latency last answered to a query */
    guint64 nonfinite;     /* float samples that were not finite, since start */

    /* streaming (stream lock); the caps in force are the audio filter's info */
    oku_vad* vad; /* the current run's analyzer; NULL between runs */
    GstOkuVadMode run_mode;
    guint64 run_nonfinite; /* the run's analyzer's count of them */
    GstOkuTimeline timeline;
    gboolean volume_posted;
    guint64 volume_position; /* position of the last reading posted */
    gboolean in_speech;      /* a start was posted and its end not yet */
    GstClockTime next_pts;   /* gate: where the last frame pushed ends (NONE before the first) */
    GstAdapter* held;        /* gate: the input the analyzer has not decided yet */
    guint64 held_position;   /* gate: the position of its first frame */
    GQueue frames;           /* gate: speech frames decided and not yet handed downstream */
};

G_DEFINE_TYPE(GstOkuVad, gst_oku_vad, GST_TYPE_AUDIO_FILTER)
GST_ELEMENT_REGISTER_DEFINE(okuvad, "okuvad", GST_RANK_NONE, GST_TYPE_OKU_VAD)

/* ---- latency ---------------------------------------------------------------- */

/*
 * How long gate mode holds audio: the longest time the analyzer may hold a
 * frame before handing it out decided (oku_vad_delay), over the input rates,
 * since the LATENCY query may come before the rate is known. A bad parameter
 * string gives 0 here; starting the element reports it.
 */
static GstClockTime gate_latency(const gchar* params)
{
    size_t count = 0;
    const int* rates = oku_input_rates(&count);
    GstClockTime latency = 0;
    for (size_t i = 0; i < count; i++) {
        double ms = 0;
        if (oku_vad_delay(rates[i], params, &ms) == OKU_OK)
            latency = MAX(latency, (GstClockTime)(ms * GST_MSECOND + 0.5));
    }
    return latency;
}

/* ---- level meta --------------------------------------------------------------- */

/*
 * The level of n samples (all channels) as RFC 6464 gives it: the mean power
 * relative to a full-scale signal (0 dBov), negated, rounded and held to
 * 0..127; digital silence is 127. A float that is not finite counts as 0, as
 * the analyzer counts it.
 */
static guint8 level_dbov(const void* data, gsize n, gboolean is_float)
{
    double sum = 0;
    if (data && is_float) {
        const float* x = data;
        for (gsize i = 0; i < n; i++)
            if (isfinite(x[i]))
                sum += (double)x[i] * x[i];
    } else if (data) {
        const int16_t* x = data;
        for (gsize i = 0; i < n; i++)
            sum += (double)x[i] * x[i];
        sum /= 32768.0 * 32768.0;
    }
    if (!(sum > 0))
        return SILENCE_DBOV;
    const double dbov = 10.0 * log10(sum / (double)n);
    return (guint8)CLAMP(floor(-dbov + 0.5), 0.0, (double)SILENCE_DBOV);
}

/* Sets the buffer's level meta (replacing one from upstream). The buffer must be writable. */
static void mark_level(GstBuffer* buf, guint8 level, gboolean voice)
{
    GstAudioLevelMeta* meta = gst_buffer_get_audio_level_meta(buf);
    if (meta) {
        meta->level = level;
        meta->voice_activity = voice;
    } else {
        gst_buffer_add_audio_level_meta(buf, level, voice);
    }
}

/* ---- messages --------------------------------------------------------------- */

static void post(GstOkuVad* self, GstStructure* s)
{
    gst_element_post_message(GST_ELEMENT(self), gst_message_new_element(GST_OBJECT(self), s));
}

static void times_of(GstOkuVad* self, guint64 position, guint64* stream_time, guint64* running_time)
{
    gst_oku_timeline_times(&self->timeline, GST_AUDIO_FILTER(self), position, stream_time, running_time);
}

/* A speech start, or an end with the start of the segment it closes. */
static void post_voice_activity(GstOkuVad* self, const oku_vad_result* r, const oku_vad_segment* segment)
{
    const gboolean start = r->type == OKU_VAD_SPEECH_START;
    guint64 stream_time, running_time;
    times_of(self, (guint64)r->position, &stream_time, &running_time);
    GST_DEBUG_OBJECT(self, "speech %s at frame %" G_GINT64_FORMAT, start ? "start" : "end", r->position);
    GstStructure* s = gst_structure_new("voice-activity", "stream-time", G_TYPE_UINT64, stream_time,
                                        "stream-has-voice", G_TYPE_BOOLEAN, start, "running-time", G_TYPE_UINT64,
                                        running_time, "position", G_TYPE_UINT64, (guint64)r->position, NULL);
    if (!start) {
        guint64 start_stream_time, start_running_time;
        times_of(self, (guint64)segment->start, &start_stream_time, &start_running_time);
        gst_structure_set(s, "start-position", G_TYPE_UINT64, (guint64)segment->start, "start-stream-time",
                          G_TYPE_UINT64, start_stream_time, NULL);
    }
    post(self, s);
}

static void post_volume(GstOkuVad* self, const oku_vad_result* r)
{
    const int rate = GST_AUDIO_FILTER_RATE(self);
    GST_OBJECT_LOCK(self);
    const guint64 interval = gst_util_uint64_scale_int(self->interval, rate, GST_SECOND);
    GST_OBJECT_UNLOCK(self);
    const guint64 position = (guint64)r->position;
    if (self->volume_posted && position < self->volume_position + interval)
        return;
    self->volume_posted = TRUE;
    self->volume_position = position;
    guint64 stream_time, running_time;
    times_of(self, position, &stream_time, &running_time);
    const char* assessment = oku_assessment_name(r->assessment);
    post(self, gst_structure_new("oku-volume", "stream-time", G_TYPE_UINT64, stream_time, "running-time", G_TYPE_UINT64,
                                 running_time, "position", G_TYPE_UINT64, position, "peak", G_TYPE_DOUBLE, r->peak,
                                 "level-dbfs", G_TYPE_DOUBLE, r->level_dbfs, "snr-pct", G_TYPE_DOUBLE, r->snr_pct,
                                 "assessment", G_TYPE_STRING, assessment ? assessment : "unknown", "speech",
                                 G_TYPE_BOOLEAN, r->speech != 0, NULL));
}

/* ---- the analyzer's results ------------------------------------------------- */

/* Gate mode: records how long a frame was held, and raises the latency when it was held longer. */
static void note_held(GstOkuVad* self, guint64 position, gint64 received)
{
    if (received <= (gint64)position)
        return;
    const int rate = GST_AUDIO_FILTER_RATE(self);
    const GstClockTime held = gst_util_uint64_scale_int((guint64)received - position, GST_SECOND, rate);
    gboolean raised = FALSE;
    GST_OBJECT_LOCK(self);
    if (held > self->latency) {
        self->latency = held;
        raised = held > self->answered;
    }
    GST_OBJECT_UNLOCK(self);
    if (raised) {
        GST_INFO_OBJECT(self, "a frame was held %" GST_TIME_FORMAT ", longer than the latency reported",
                        GST_TIME_ARGS(held));
        gst_element_post_message(GST_ELEMENT(self), gst_message_new_latency(GST_OBJECT(self)));
    }
}

/*
 * Gate mode: the input frames of one decided frame leave the held input,
 * queued for downstream when the frame lies in speech, dropped when not. An
 * analysed frame stands for a whole number of input frames; the short last
 * frame of a flush takes what is left of its share.
 */
static void gate_frame(GstOkuVad* self, const oku_vad_result* r, gint64 received)
{
    const GstAudioInfo* info = GST_AUDIO_FILTER_INFO(self);
    const int rate = GST_AUDIO_INFO_RATE(info);
    const guint bpf = (guint)GST_AUDIO_INFO_BPF(info);
    const guint64 position = (guint64)r->position;
    const guint64 held_end = self->held_position + gst_adapter_available(self->held) / bpf;
    if (position > self->held_position) {
        const guint64 skip = MIN(position, held_end) - self->held_position;
        gst_adapter_flush(self->held, (gsize)(skip * bpf));
        self->held_position += skip;
    }
    const guint64 share = gst_util_uint64_scale_int_ceil((guint64)r->sample_count, rate, oku_analysis_rate(rate));
    const guint64 end = MIN(position + share, held_end);
    if (end <= self->held_position)
        return;
    const gsize bytes = (gsize)(end - self->held_position) * bpf;
    self->held_position = end;
    if (!r->speech) {
        gst_adapter_flush(self->held, bytes);
        return;
    }
    note_held(self, position, received);
    GstBuffer* out = gst_buffer_make_writable(gst_adapter_take_buffer(self->held, bytes));
    const GstClockTime start = gst_oku_timeline_time(&self->timeline, GST_AUDIO_FILTER(self), position);
    GST_BUFFER_PTS(out) = start;
    GST_BUFFER_DTS(out) = GST_CLOCK_TIME_NONE;
    GST_BUFFER_DURATION(out) = gst_util_uint64_scale_int(end - position, GST_SECOND, rate);
    GST_BUFFER_OFFSET(out) = position;
    GST_BUFFER_OFFSET_END(out) = end;
    /* DISCONT where the output does not continue the last frame pushed (by
     * more than the rounding of times): after frames dropped, and where the
     * input's timestamps jump. */
    GST_BUFFER_FLAG_UNSET(out, GST_BUFFER_FLAG_DISCONT | GST_BUFFER_FLAG_GAP | GST_BUFFER_FLAG_RESYNC);
    const GstClockTime off = start > self->next_pts ? start - self->next_pts : self->next_pts - start;
    if (!GST_CLOCK_TIME_IS_VALID(self->next_pts) || off > gst_util_uint64_scale_int(GST_SECOND, 1, 2 * rate))
        GST_BUFFER_FLAG_SET(out, GST_BUFFER_FLAG_DISCONT);
    self->next_pts = start + GST_BUFFER_DURATION(out);
    GstMapInfo map;
    guint8 level = SILENCE_DBOV;
    if (gst_buffer_map(out, &map, GST_MAP_READ)) {
        level = level_dbov(map.data, map.size / bpf * (gsize)GST_AUDIO_INFO_CHANNELS(info), GST_OKU_IS_FLOAT(info));
        gst_buffer_unmap(out, &map);
    }
    mark_level(out, level, TRUE);
    g_queue_push_tail(&self->frames, out);
}

/*
 * Takes every queued result: posts messages and, in gate mode, sorts the
 * held input into speech and the rest. received: frames of the run before the
 * audio just given (-1 when draining at the end of a run, where holding is
 * not latency).
 */
static GstFlowReturn drain(GstOkuVad* self, gint64 received)
{
    for (;;) {
        oku_vad_result r;
        oku_vad_segment segment;
        if (oku_vad_take(self->vad, &r, &segment) != OKU_OK) {
            GST_ELEMENT_ERROR(self, LIBRARY, FAILED, ("The analyzer failed: %s", oku_last_error()), (NULL));
            return GST_FLOW_ERROR;
        }
        switch (r.type) {
        case OKU_VAD_NONE:
            return GST_FLOW_OK;
        case OKU_VAD_SPEECH_START:
        case OKU_VAD_SPEECH_END:
            self->in_speech = r.type == OKU_VAD_SPEECH_START;
            post_voice_activity(self, &r, &segment);
            break;
        case OKU_VAD_VOLUME:
            post_volume(self, &r);
            break;
        case OKU_VAD_FRAME:
            gate_frame(self, &r, received);
            break;
        default:
            break;
        }
    }
}

/* Gate mode: pushes the frames decided. */
static GstFlowReturn push_frames(GstOkuVad* self)
{
    GstFlowReturn ret = GST_FLOW_OK;
    GstBuffer* out;
    while ((out = g_queue_pop_head(&self->frames))) {
        if (ret == GST_FLOW_OK)
            ret = gst_pad_push(GST_BASE_TRANSFORM_SRC_PAD(self), out);
        else
            gst_buffer_unref(out);
    }
    return ret;
}

static gboolean start_run(GstOkuVad* self)
{
    const GstAudioInfo* info = GST_AUDIO_FILTER_INFO(self);
    gchar* params = NULL;
    if (!gst_oku_settings_check(GST_ELEMENT(self), &self->settings, FALSE, &params))
        return FALSE;
    GST_OBJECT_LOCK(self);
    self->run_mode = self->mode;
    GST_OBJECT_UNLOCK(self);
    const unsigned flags = self->run_mode == GST_OKU_VAD_MODE_GATE ? OKU_VAD_AUDIO_FRAMES : 0;
    const int rate = GST_AUDIO_INFO_RATE(info), channels = GST_AUDIO_INFO_CHANNELS(info);
    if (oku_vad_open(rate, channels, params, flags, &self->vad) != OKU_OK) {
        GST_ELEMENT_ERROR(self, LIBRARY, INIT, ("Cannot make the analyzer: %s", oku_last_error()),
                          ("%d Hz, %d channels, parameter string \"%s\"", rate, channels, params));
        g_free(params);
        self->vad = NULL;
        return FALSE;
    }
    const GstClockTime latency = self->run_mode == GST_OKU_VAD_MODE_GATE ? gate_latency(params) : 0;
    g_free(params);
    gboolean raised;
    GST_OBJECT_LOCK(self);
    self->running = TRUE;
    self->latency = latency;
    raised = latency > self->answered;
    GST_OBJECT_UNLOCK(self);
    if (raised)
        gst_element_post_message(GST_ELEMENT(self), gst_message_new_latency(GST_OBJECT(self)));
    gst_oku_timeline_start(&self->timeline);
    self->volume_posted = FALSE;
    self->in_speech = FALSE;
    self->next_pts = GST_CLOCK_TIME_NONE;
    self->held_position = 0;
    self->run_nonfinite = 0;
    GST_DEBUG_OBJECT(self, "new run: %d Hz, %d channels, analysed at %d Hz", rate, channels, oku_analysis_rate(rate));
    return TRUE;
}

/* Ends the run: flush decides and hands out everything pending (the end of
 * open speech included); otherwise what is pending is dropped. */
static GstFlowReturn end_run(GstOkuVad* self, gboolean flush)
{
    GstFlowReturn ret = GST_FLOW_OK;
    if (self->vad && flush) {
        if (oku_vad_flush(self->vad) != OKU_OK) {
            GST_ELEMENT_ERROR(self, LIBRARY, FAILED, ("The analyzer failed: %s", oku_last_error()), (NULL));
            ret = GST_FLOW_ERROR;
        } else {
            ret = drain(self, -1);
        }
    }
    if (flush && ret == GST_FLOW_OK)
        ret = push_frames(self);
    g_queue_clear_full(&self->frames, (GDestroyNotify)gst_buffer_unref);
    gst_adapter_clear(self->held);
    if (self->vad)
        oku_vad_destroy(self->vad);
    self->vad = NULL;
    self->in_speech = FALSE;
    GST_OBJECT_LOCK(self);
    self->running = FALSE;
    GST_OBJECT_UNLOCK(self);
    return ret;
}

/*
 * Gives the analyzer the next frames of the stream, dated by buf: the samples
 * of buf itself, or, with silence set, as many frames of silence (a gap; buf
 * then only carries the timestamp). Gate mode holds the same audio until the
 * analyzer has decided it. Silence goes in pieces, so that a long gap holds
 * little at a time.
 */
static GstFlowReturn analyse(GstOkuVad* self, GstBuffer* buf, const void* samples, guint64 frames)
{
    static const int16_t zeros[4096];
    const GstAudioInfo* info = GST_AUDIO_FILTER_INFO(self);
    const guint channels = (guint)GST_AUDIO_INFO_CHANNELS(info), bpf = (guint)GST_AUDIO_INFO_BPF(info);
    const gboolean gate = self->run_mode == GST_OKU_VAD_MODE_GATE;
    const guint64 before = self->timeline.samples;
    gst_oku_timeline_add(&self->timeline, GST_AUDIO_FILTER(self), buf);
    if (samples && gate) {
        const gsize bytes = (gsize)frames * bpf;
        gst_adapter_push(self->held, bytes == gst_buffer_get_size(buf)
                                         ? gst_buffer_ref(buf)
                                         : gst_buffer_copy_region(buf, GST_BUFFER_COPY_MEMORY, 0, bytes));
    }
    const guint64 piece = samples ? MAX(frames, 1) : G_N_ELEMENTS(zeros) / channels;
    GstFlowReturn ret = GST_FLOW_OK;
    for (guint64 done = 0; done < frames && ret == GST_FLOW_OK; done += piece) {
        const guint64 n = MIN(frames - done, piece);
        int status;
        uint64_t nonfinite = 0;
        if (samples && GST_OKU_IS_FLOAT(info)) {
            status = oku_vad_process_f32(self->vad, samples, (size_t)(n * channels));
            if (status == OKU_OK && oku_vad_nonfinite(self->vad, &nonfinite) == OKU_OK)
                gst_oku_count_nonfinite(GST_ELEMENT(self), &self->nonfinite, &self->run_nonfinite, nonfinite);
        } else if (samples) {
            status = oku_vad_process(self->vad, samples, (size_t)(n * channels));
        } else {
            if (gate) {
                GstBuffer* silence = gst_buffer_new_allocate(NULL, (gsize)n * bpf, NULL);
                gst_buffer_memset(silence, 0, 0, (gsize)n * bpf);
                gst_adapter_push(self->held, silence);
            }
            status = oku_vad_process(self->vad, zeros, (size_t)(n * channels));
        }
        if (status != OKU_OK) {
            GST_ELEMENT_ERROR(self, LIBRARY, FAILED, ("The analyzer failed: %s", oku_last_error()), (NULL));
            return GST_FLOW_ERROR;
        }
        self->timeline.samples += n;
        ret = drain(self, (gint64)(before + done));
    }
    return ret;
}

/* Analyses a buffer; *level receives its level for the meta. */
static GstFlowReturn analyse_buffer(GstOkuVad* self, GstBuffer* buf, guint8* level)
{
    if (!self->vad && !start_run(self))
        return GST_FLOW_ERROR;
    const GstAudioInfo* info = GST_AUDIO_FILTER_INFO(self);
    GstMapInfo map;
    if (!gst_buffer_map(buf, &map, GST_MAP_READ)) {
        GST_ELEMENT_ERROR(self, RESOURCE, READ, (NULL), ("cannot map a buffer"));
        return GST_FLOW_ERROR;
    }
    const guint bpf = (guint)GST_AUDIO_INFO_BPF(info);
    if (map.size % bpf)
        GST_WARNING_OBJECT(self, "a buffer of %" G_GSIZE_FORMAT " bytes, not a whole number of %u-byte frames: "
                           "its last %" G_GSIZE_FORMAT " bytes are ignored", map.size, bpf, map.size % bpf);
    const guint64 frames = map.size / bpf;
    const gboolean gap = GST_BUFFER_FLAG_IS_SET(buf, GST_BUFFER_FLAG_GAP);
    const void* samples = gap ? NULL : map.data;
    *level = level_dbov(samples, (gsize)frames * GST_AUDIO_INFO_CHANNELS(info), GST_OKU_IS_FLOAT(info));
    const GstFlowReturn ret = analyse(self, buf, samples, frames);
    gst_buffer_unmap(buf, &map);
    return ret;
}

/* ---- streaming ----------------------------------------------------------------- */

/* Pass mode: the base class hands each buffer here, writable, to go on as it is. */
static GstFlowReturn gst_oku_vad_transform_ip(GstBaseTransform* trans, GstBuffer* buf)
{
    GstOkuVad* self = GST_OKU_VAD(trans);
    guint8 level = SILENCE_DBOV;
    const GstFlowReturn ret = analyse_buffer(self, buf, &level);
    if (ret == GST_FLOW_OK)
        mark_level(buf, level, self->in_speech);
    return ret;
}

/*
 * Pass mode leaves the output to the base class (it calls transform_ip).
 * Gate mode gives the input buffer to the analyzer and pushes the speech
 * frames decided itself, flagged as they follow one another: the base class
 * would mark the first buffer out after a DISCONT input, which in a delayed
 * output is the wrong one.
 */
static GstFlowReturn gst_oku_vad_generate_output(GstBaseTransform* trans, GstBuffer** outbuf)
{
    GstOkuVad* self = GST_OKU_VAD(trans);
    GstBuffer* in = trans->queued_buf;
    *outbuf = NULL;
    if (in && !self->vad && !start_run(self)) {
        trans->queued_buf = NULL;
        gst_buffer_unref(in);
        return GST_FLOW_ERROR;
    }
    if (!self->vad || self->run_mode == GST_OKU_VAD_MODE_PASS)
        return GST_BASE_TRANSFORM_CLASS(gst_oku_vad_parent_class)->generate_output(trans, outbuf);
    if (!in)
        return GST_FLOW_OK;
    trans->queued_buf = NULL;
    guint8 level;
    GstFlowReturn ret = analyse_buffer(self, in, &level);
    gst_buffer_unref(in);
    return ret == GST_FLOW_OK ? push_frames(self) : ret;
}

/* New caps (rate, channels or format) end the run, its open speech closed,
 * before they go downstream; the next buffer starts a run for them. */
static gboolean gst_oku_vad_setup(GstAudioFilter* filter, const GstAudioInfo* info)
{
    GstOkuVad* self = GST_OKU_VAD(filter);
    if (!gst_audio_info_is_equal(info, GST_AUDIO_FILTER_INFO(filter)))
        end_run(self, TRUE);
    return TRUE;
}

static gboolean gst_oku_vad_sink_event(GstBaseTransform* trans, GstEvent* event)
{
    GstOkuVad* self = GST_OKU_VAD(trans);
    switch (GST_EVENT_TYPE(event)) {
    case GST_EVENT_GAP: {
        /* Silence of the gap's length, so that positions keep counting the stream's frames. */
        GstClockTime pts, duration;
        gst_event_parse_gap(event, &pts, &duration);
        const int rate = GST_AUDIO_FILTER_RATE(self);
        if (rate > 0 && GST_CLOCK_TIME_IS_VALID(duration) && (self->vad || start_run(self))) {
            GstBuffer* stamp = gst_buffer_new();
            GST_BUFFER_PTS(stamp) = pts;
            const guint64 n = gst_util_uint64_scale_int_round(duration, rate, GST_SECOND);
            GstFlowReturn ret = analyse(self, stamp, NULL, n);
            gst_buffer_unref(stamp);
            if (ret == GST_FLOW_OK)
                push_frames(self);
        }
        break;
    }
    case GST_EVENT_FLUSH_STOP:
        end_run(self, FALSE);
        break;
    case GST_EVENT_EOS:
        end_run(self, TRUE);
        break;
    default:
        break;
    }
    return GST_BASE_TRANSFORM_CLASS(gst_oku_vad_parent_class)->sink_event(trans, event);
}

/*
 * LATENCY adds what gate mode holds. It reads only what the object lock
 * guards, so that a query from another thread meets no half-written state.
 */
static gboolean gst_oku_vad_query(GstBaseTransform* trans, GstPadDirection direction, GstQuery* query)
{
    GstOkuVad* self = GST_OKU_VAD(trans);
    if (direction != GST_PAD_SRC || GST_QUERY_TYPE(query) != GST_QUERY_LATENCY)
        return GST_BASE_TRANSFORM_CLASS(gst_oku_vad_parent_class)->query(trans, direction, query);
    if (!gst_pad_peer_query(GST_BASE_TRANSFORM_SINK_PAD(trans), query))
        return FALSE;
    gboolean live;
    GstClockTime min, max;
    gst_query_parse_latency(query, &live, &min, &max);
    GST_OBJECT_LOCK(self);
    const gboolean running = self->running;
    GstClockTime ours = self->latency;
    const gboolean gate = self->mode == GST_OKU_VAD_MODE_GATE;
    gchar* params = running ? NULL : gst_oku_settings_string(&self->settings);
    GST_OBJECT_UNLOCK(self);
    if (!running) /* what the next run will add */
        ours = gate ? gate_latency(params) : 0;
    g_free(params);
    GST_OBJECT_LOCK(self);
    self->answered = MAX(self->answered, ours);
    GST_OBJECT_UNLOCK(self);
    GST_DEBUG_OBJECT(self, "latency %" GST_TIME_FORMAT, GST_TIME_ARGS(ours));
    min += ours;
    if (GST_CLOCK_TIME_IS_VALID(max))
        max += ours;
    gst_query_set_latency(query, live, min, max);
    return TRUE;
}

static gboolean gst_oku_vad_start(GstBaseTransform* trans)
{
    GstOkuVad* self = GST_OKU_VAD(trans);
    if (!gst_oku_settings_check(GST_ELEMENT(self), &self->settings, TRUE, NULL))
        return FALSE;
    GST_OBJECT_LOCK(self);
    self->answered = 0;
    self->nonfinite = 0;
    GST_OBJECT_UNLOCK(self);
    return TRUE;
}

static gboolean gst_oku_vad_stop(GstBaseTransform* trans)
{
    end_run(GST_OKU_VAD(trans), FALSE);
    return TRUE;
}

/* ---- element ----------------------------------------------------------------- */

static void gst_oku_vad_set_property(GObject* object, guint prop_id, const GValue* value, GParamSpec* pspec)
{
    GstOkuVad* self = GST_OKU_VAD(object);
    GST_OBJECT_LOCK(self);
    switch (prop_id) {
    case PROP_MODE:
        self->mode = (GstOkuVadMode)g_value_get_enum(value);
        break;
    case PROP_INTERVAL:
        self->interval = g_value_get_uint64(value);
        break;
    default:
        if (!gst_oku_settings_set(&self->settings, PROP_SETTINGS, prop_id, value))
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(self);
}

static void gst_oku_vad_get_property(GObject* object, guint prop_id, GValue* value, GParamSpec* pspec)
{
    GstOkuVad* self = GST_OKU_VAD(object);
    GST_OBJECT_LOCK(self);
    switch (prop_id) {
    case PROP_MODE:
        g_value_set_enum(value, self->mode);
        break;
    case PROP_INTERVAL:
        g_value_set_uint64(value, self->interval);
        break;
    case PROP_NONFINITE:
        g_value_set_uint64(value, self->nonfinite);
        break;
    default:
        if (!gst_oku_settings_get(&self->settings, PROP_SETTINGS, prop_id, value))
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(self);
}

static void gst_oku_vad_finalize(GObject* object)
{
    GstOkuVad* self = GST_OKU_VAD(object);
    if (self->vad)
        oku_vad_destroy(self->vad);
    g_queue_clear_full(&self->frames, (GDestroyNotify)gst_buffer_unref);
    g_object_unref(self->held);
    gst_oku_settings_clear(&self->settings);
    G_OBJECT_CLASS(gst_oku_vad_parent_class)->finalize(object);
}

static void gst_oku_vad_class_init(GstOkuVadClass* klass)
{
    GObjectClass* gobject_class = G_OBJECT_CLASS(klass);
    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
    GstBaseTransformClass* trans_class = GST_BASE_TRANSFORM_CLASS(klass);
    GstAudioFilterClass* filter_class = GST_AUDIO_FILTER_CLASS(klass);
    GST_DEBUG_CATEGORY_INIT(gst_oku_vad_debug, "okuvad", 0, "oku voice-activity analyzer");

    gobject_class->set_property = gst_oku_vad_set_property;
    gobject_class->get_property = gst_oku_vad_get_property;
    gobject_class->finalize = gst_oku_vad_finalize;

    g_object_class_install_property(
        gobject_class, PROP_MODE,
        g_param_spec_enum("mode", "Mode",
                          "pass: all audio goes through; gate: only the frames inside speech, with their timestamps "
                          "(applies from the next run)",
                          GST_TYPE_OKU_VAD_MODE, DEFAULT_MODE,
                          G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY));
    g_object_class_install_property(
        gobject_class, PROP_INTERVAL,
        g_param_spec_uint64("interval", "Interval",
                            "Least audio between two oku-volume messages in ns (0: every reading)", 0, G_MAXUINT64,
                            DEFAULT_INTERVAL, G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING));
    g_object_class_install_property(gobject_class, PROP_NONFINITE,
                                    g_param_spec_uint64("nonfinite", "Non-finite samples", GST_OKU_NONFINITE_BLURB, 0,
                                                        G_MAXUINT64, 0, G_PARAM_READABLE | G_PARAM_STATIC_STRINGS));
    gst_oku_settings_install(gobject_class, OKU_SERVICE_VAD, PROP_SETTINGS);

    GstCaps* caps = gst_oku_caps_new();
    gst_audio_filter_class_add_pad_templates(filter_class, caps);
    gst_caps_unref(caps);
    gst_element_class_set_static_metadata(element_class, "Voice activity analyzer", "Filter/Analyzer/Audio",
                                          "Posts where speech starts and ends and the volume meter's readings; "
                                          "can pass only the speech",
                                          "oku developers");
    gst_element_class_add_static_metadata(element_class, GST_ELEMENT_METADATA_DOC_URI, OKU_GST_MANUAL);
    gst_type_mark_as_plugin_api(GST_TYPE_OKU_VAD_MODE, 0);

    trans_class->transform_ip = GST_DEBUG_FUNCPTR(gst_oku_vad_transform_ip);
    trans_class->generate_output = GST_DEBUG_FUNCPTR(gst_oku_vad_generate_output);
    trans_class->sink_event = GST_DEBUG_FUNCPTR(gst_oku_vad_sink_event);
    trans_class->query = GST_DEBUG_FUNCPTR(gst_oku_vad_query);
    trans_class->start = GST_DEBUG_FUNCPTR(gst_oku_vad_start);
    trans_class->stop = GST_DEBUG_FUNCPTR(gst_oku_vad_stop);
    filter_class->setup = GST_DEBUG_FUNCPTR(gst_oku_vad_setup);
}

static void gst_oku_vad_init(GstOkuVad* self)
{
    gst_oku_settings_init(&self->settings, OKU_SERVICE_VAD);
    self->mode = DEFAULT_MODE;
    self->interval = DEFAULT_INTERVAL;
    g_queue_init(&self->frames);
    self->held = gst_adapter_new();
}
