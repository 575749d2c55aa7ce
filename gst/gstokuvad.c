/*
 * okuvad - the voice-activity analyzer as a GStreamer element, on
 * GstAudioFilter.
 *
 * In "pass" mode the element works in place, as level does: the audio goes
 * through untouched while the analyzer posts "voice-activity" messages
 * (speech started or ended, dated where the analyzer dates it) and
 * "oku-volume" readings. In "gate" mode it makes its own output, as
 * webrtcdsp does (submit_input_buffer hands the input to the analyzer,
 * generate_output hands out what it decided): only the frames the analyzer
 * places inside speech go downstream, with their original timestamps; the
 * element then delays the audio by as long as the analyzer takes to decide a
 * frame, and says so in the LATENCY query.
 *
 * Every buffer the element passes carries a GstAudioLevelMeta: the level of
 * its samples in -dBov (0 loudest, 127 silence, as RFC 6464 counts) and
 * whether it lies in speech, which RTP payloaders turn into the audio-level
 * header extension (rtphdrextclientaudiolevel). In pass mode "in speech" is
 * the analyzer's state once it has heard the buffer, so it follows the
 * segments a decision's delay late; in gate mode every buffer is speech.
 *
 * A buffer marked GAP is silence: the analyzer hears zeros for it, so that
 * its positions keep counting the samples of the stream. A GAP event with a
 * duration counts the same way.
 *
 * A run of the analyzer lasts from the first buffer after start, a flush, an
 * EOS or a new rate to the next of these: a new rate flushes the analyzer
 * (posting the end of open speech) and makes a new one, a flush drops it, EOS
 * flushes it. Settings and mode changed while streaming apply from the next run.
 */
#include "gstoku.h"

#include <gst/audio/audio.h>
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

enum { PROP_0, PROP_MODE, PROP_INTERVAL, PROP_SETTINGS };

struct _GstOkuVad {
    GstAudioFilter parent;

    /* properties and what the LATENCY query reads (object lock) */
    GstOkuSettings settings;
    GstOkuVadMode mode;
    guint64 interval;
    gboolean running;      /* a run is under way, and latency is what it adds */
    GstClockTime latency;  /* gate mode: what the element adds, raised when a frame was held longer */
    GstClockTime answered; /* the latency last answered to a query */

    /* streaming (stream lock) */
    int rate; /* of the caps in force; 0 before caps */
    GstSegment segment;
    oku_vad* vad; /* the current run's analyzer; NULL between runs */
    GstOkuVadMode run_mode;
    GstOkuTimeline timeline;
    gboolean volume_posted;
    guint64 volume_position; /* position of the last reading posted */
    gboolean in_speech;      /* a start was posted and its end not yet */
    gboolean gap;            /* gate: nothing pushed yet, or a frame dropped since the last one pushed */
    GQueue frames;           /* gate: speech frames decided and not yet handed downstream */
};

G_DEFINE_TYPE(GstOkuVad, gst_oku_vad, GST_TYPE_AUDIO_FILTER)

/* ---- latency ---------------------------------------------------------------- */

/*
 * How long gate mode holds audio: the longest time the analyzer may hold a
 * frame before handing it out decided (oku_vad_delay), over the supported
 * rates, since the LATENCY query may come before the rate is known. A bad
 * parameter string gives 0 here; starting the element reports it.
 */
static GstClockTime gate_latency(const gchar* params)
{
    size_t count = 0;
    const int* rates = oku_rates(&count);
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
 * The level of n samples as RFC 6464 gives it: the mean power relative to a
 * full-scale signal (0 dBov), negated, rounded and held to 0..127; digital
 * silence is 127.
 */
static guint8 level_dbov(const int16_t* samples, gsize n)
{
    if (!samples || n == 0)
        return SILENCE_DBOV;
    double sum = 0;
    for (gsize i = 0; i < n; i++)
        sum += (double)samples[i] * samples[i];
    if (sum == 0)
        return SILENCE_DBOV;
    const double dbov = 10.0 * log10(sum / ((double)n * 32768.0 * 32768.0));
    return (guint8)MIN(floor(-dbov + 0.5), (double)SILENCE_DBOV);
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

static void post_voice_activity(GstOkuVad* self, const oku_vad_result* r)
{
    guint64 stream_time, running_time;
    gst_oku_segment_times(&self->segment, gst_oku_timeline_time(&self->timeline, (guint64)r->position), &stream_time,
                          &running_time);
    GST_DEBUG_OBJECT(self, "speech %s at sample %" G_GINT64_FORMAT, r->type == OKU_VAD_SPEECH_START ? "start" : "end",
                     r->position);
    post(self, gst_structure_new("voice-activity", "stream-time", G_TYPE_UINT64, stream_time, "stream-has-voice",
                                 G_TYPE_BOOLEAN, r->type == OKU_VAD_SPEECH_START, "running-time", G_TYPE_UINT64,
                                 running_time, "position", G_TYPE_UINT64, (guint64)r->position, NULL));
}

static void post_volume(GstOkuVad* self, const oku_vad_result* r)
{
    GST_OBJECT_LOCK(self);
    const guint64 interval = gst_util_uint64_scale_int(self->interval, self->rate, GST_SECOND);
    GST_OBJECT_UNLOCK(self);
    const guint64 position = (guint64)r->position;
    if (self->volume_posted && position < self->volume_position + interval)
        return;
    self->volume_posted = TRUE;
    self->volume_position = position;
    guint64 stream_time, running_time;
    gst_oku_segment_times(&self->segment, gst_oku_timeline_time(&self->timeline, position), &stream_time,
                          &running_time);
    const char* assessment = oku_assessment_name(r->assessment);
    post(self, gst_structure_new("oku-volume", "stream-time", G_TYPE_UINT64, stream_time, "running-time", G_TYPE_UINT64,
                                 running_time, "position", G_TYPE_UINT64, position, "peak", G_TYPE_DOUBLE, r->peak,
                                 "level-dbfs", G_TYPE_DOUBLE, r->level_dbfs, "snr-pct", G_TYPE_DOUBLE, r->snr_pct,
                                 "assessment", G_TYPE_STRING, assessment ? assessment : "unknown", "speech",
                                 G_TYPE_BOOLEAN, r->speech != 0, NULL));
}

/* ---- the analyzer's results ------------------------------------------------- */

/* Gate mode: queues one frame inside speech for downstream; records how long it was held. */
static void queue_frame(GstOkuVad* self, const oku_vad_result* r, gint64 received)
{
    const guint64 position = (guint64)r->position;
    if (received > r->position) {
        const GstClockTime held = gst_util_uint64_scale_int((guint64)(received - r->position), GST_SECOND, self->rate);
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
    GstBuffer* out = gst_buffer_new_memdup(r->samples, (gsize)r->sample_count * sizeof(int16_t));
    const GstClockTime start = gst_oku_timeline_time(&self->timeline, position);
    GST_BUFFER_PTS(out) = start;
    GST_BUFFER_DURATION(out) =
        gst_oku_timeline_time(&self->timeline, position + (guint64)r->sample_count) - start;
    GST_BUFFER_OFFSET(out) = position;
    GST_BUFFER_OFFSET_END(out) = position + (guint64)r->sample_count;
    if (self->gap) {
        GST_BUFFER_FLAG_SET(out, GST_BUFFER_FLAG_DISCONT);
        self->gap = FALSE;
    }
    mark_level(out, level_dbov(r->samples, (gsize)r->sample_count), TRUE);
    g_queue_push_tail(&self->frames, out);
}

/*
 * Takes every queued result: posts messages and, in gate mode, queues the
 * frames inside speech. received: samples of the run before the buffer just
 * given (-1 when draining at the end of a run, where holding is not latency).
 */
static GstFlowReturn drain(GstOkuVad* self, gint64 received)
{
    oku_vad_result r[32];
    size_t count = 0;
    do {
        if (oku_vad_results(self->vad, r, G_N_ELEMENTS(r), &count) != OKU_OK) {
            GST_ELEMENT_ERROR(self, LIBRARY, FAILED, ("The analyzer failed: %s", oku_last_error()), (NULL));
            return GST_FLOW_ERROR;
        }
        /* Frames' samples stay valid until the next call on the analyzer:
         * each batch is used up before the next is taken. */
        for (size_t k = 0; k < count; k++) {
            switch (r[k].type) {
            case OKU_VAD_SPEECH_START:
            case OKU_VAD_SPEECH_END:
                self->in_speech = r[k].type == OKU_VAD_SPEECH_START;
                post_voice_activity(self, &r[k]);
                break;
            case OKU_VAD_VOLUME:
                post_volume(self, &r[k]);
                break;
            case OKU_VAD_FRAME:
                if (!r[k].speech)
                    self->gap = TRUE;
                else
                    queue_frame(self, &r[k], received);
                break;
            default:
                break;
            }
        }
    } while (count == G_N_ELEMENTS(r));
    return GST_FLOW_OK;
}

/* Gate mode: pushes the frames still queued (at the end of a run, from an event handler). */
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
    gchar* params = NULL;
    if (!gst_oku_settings_check(GST_ELEMENT(self), &self->settings, FALSE, &params))
        return FALSE;
    GST_OBJECT_LOCK(self);
    self->run_mode = self->mode;
    GST_OBJECT_UNLOCK(self);
    const unsigned flags = self->run_mode == GST_OKU_VAD_MODE_GATE ? OKU_VAD_AUDIO_FRAMES : 0;
    if (oku_vad_create_ex(self->rate, params, flags, &self->vad) != OKU_OK) {
        GST_ELEMENT_ERROR(self, LIBRARY, INIT, ("Cannot make the analyzer: %s", oku_last_error()),
                          ("rate %d, parameter string \"%s\"", self->rate, params));
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
    gst_oku_timeline_start(&self->timeline, self->rate);
    self->volume_posted = FALSE;
    self->in_speech = FALSE;
    self->gap = TRUE;
    GST_DEBUG_OBJECT(self, "new run at %d Hz", self->rate);
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
 * Gives the analyzer the next n samples of the stream, dated by buf; NULL
 * samples stand for n samples of silence (a gap). received (if given) is set
 * to the samples of the run before these.
 */
static GstFlowReturn analyse(GstOkuVad* self, GstBuffer* buf, const int16_t* samples, guint64 n, gint64* received)
{
    static const int16_t zeros[1024];
    const gint64 before = (gint64)self->timeline.samples;
    if (received)
        *received = before;
    gst_oku_timeline_add(&self->timeline, buf, &self->segment);
    int status = OKU_OK;
    if (samples) {
        status = oku_vad_process(self->vad, samples, (size_t)n);
    } else {
        for (guint64 done = 0; done < n && status == OKU_OK; done += G_N_ELEMENTS(zeros))
            status = oku_vad_process(self->vad, zeros, (size_t)MIN(n - done, G_N_ELEMENTS(zeros)));
    }
    if (status != OKU_OK) {
        GST_ELEMENT_ERROR(self, LIBRARY, FAILED, ("The analyzer failed: %s", oku_last_error()), (NULL));
        return GST_FLOW_ERROR;
    }
    self->timeline.samples += n;
    return drain(self, before);
}

/* Analyses a buffer; *level receives its level for the meta. */
static GstFlowReturn analyse_buffer(GstOkuVad* self, GstBuffer* buf, guint8* level)
{
    if (!self->vad && !start_run(self))
        return GST_FLOW_ERROR;
    GstMapInfo map;
    if (!gst_buffer_map(buf, &map, GST_MAP_READ)) {
        GST_ELEMENT_ERROR(self, RESOURCE, READ, (NULL), ("cannot map a buffer"));
        return GST_FLOW_ERROR;
    }
    if (map.size % 2)
        GST_WARNING_OBJECT(self, "a buffer of %" G_GSIZE_FORMAT " bytes: its last byte is ignored", map.size);
    const guint64 n = map.size / 2;
    const gboolean gap = GST_BUFFER_FLAG_IS_SET(buf, GST_BUFFER_FLAG_GAP);
    const int16_t* samples = gap ? NULL : (const int16_t*)map.data;
    *level = level_dbov(samples, (gsize)n);
    const GstFlowReturn ret = analyse(self, buf, samples, n, NULL);
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
 * Pass mode leaves the output to the base class (it calls transform_ip);
 * gate mode hands out the speech frames decided, one per call, the input
 * buffer having gone to the analyzer on the first.
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
    GstFlowReturn ret = GST_FLOW_OK;
    if (in) {
        trans->queued_buf = NULL;
        guint8 level;
        ret = analyse_buffer(self, in, &level);
        gst_buffer_unref(in);
    }
    if (ret == GST_FLOW_OK)
        *outbuf = g_queue_pop_head(&self->frames);
    return ret;
}

static gboolean gst_oku_vad_setup(GstAudioFilter* filter, const GstAudioInfo* info)
{
    GstOkuVad* self = GST_OKU_VAD(filter);
    if (GST_AUDIO_INFO_RATE(info) != self->rate) {
        end_run(self, TRUE);
        self->rate = GST_AUDIO_INFO_RATE(info);
    }
    return TRUE;
}

static gboolean gst_oku_vad_sink_event(GstBaseTransform* trans, GstEvent* event)
{
    GstOkuVad* self = GST_OKU_VAD(trans);
    switch (GST_EVENT_TYPE(event)) {
    case GST_EVENT_CAPS: {
        /* The end of the old run goes out before the new caps. */
        GstCaps* caps;
        GstAudioInfo info;
        gst_event_parse_caps(event, &caps);
        if (gst_audio_info_from_caps(&info, caps) && GST_AUDIO_INFO_RATE(&info) != self->rate)
            end_run(self, TRUE);
        break;
    }
    case GST_EVENT_SEGMENT:
        gst_event_copy_segment(event, &self->segment);
        if (self->segment.format != GST_FORMAT_TIME) {
            GST_DEBUG_OBJECT(self, "not a TIME segment: times follow the samples from 0");
            gst_segment_init(&self->segment, GST_FORMAT_TIME);
        }
        break;
    case GST_EVENT_GAP: {
        /* Silence of the gap's length, so that positions keep counting the stream's samples. */
        GstClockTime pts, duration;
        gst_event_parse_gap(event, &pts, &duration);
        if (self->rate > 0 && GST_CLOCK_TIME_IS_VALID(duration) && (self->vad || start_run(self))) {
            GstBuffer* stamp = gst_buffer_new();
            GST_BUFFER_PTS(stamp) = pts;
            const guint64 n = gst_util_uint64_scale_int_round(duration, self->rate, GST_SECOND);
            GstFlowReturn ret = analyse(self, stamp, NULL, n, NULL);
            gst_buffer_unref(stamp);
            if (ret == GST_FLOW_OK)
                push_frames(self);
        }
        break;
    }
    case GST_EVENT_FLUSH_STOP:
        end_run(self, FALSE);
        gst_segment_init(&self->segment, GST_FORMAT_TIME);
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
    self->rate = 0;
    gst_segment_init(&self->segment, GST_FORMAT_TIME);
    GST_OBJECT_LOCK(self);
    self->answered = 0;
    GST_OBJECT_UNLOCK(self);
    return TRUE;
}

static gboolean gst_oku_vad_stop(GstBaseTransform* trans)
{
    GstOkuVad* self = GST_OKU_VAD(trans);
    end_run(self, FALSE);
    self->rate = 0;
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
    gst_oku_settings_install(gobject_class, OKU_SERVICE_VAD, PROP_SETTINGS);

    GstCaps* caps = gst_oku_caps_new();
    gst_audio_filter_class_add_pad_templates(filter_class, caps);
    gst_caps_unref(caps);
    gchar* rates = gst_oku_rates_text();
    gchar* description = g_strdup_printf(
        "Finds speech in S16 mono audio at %s. Posts a \"voice-activity\" element message where speech "
        "starts and where it ends (stream-time, stream-has-voice, running-time, position), dated where the "
        "analyzer dates it, and \"oku-volume\" meter readings at most once per interval (stream-time, "
        "running-time, position, peak, level-dbfs, snr-pct, assessment, speech). Every buffer it passes "
        "carries a GstAudioLevelMeta (its level in -dBov and whether it lies in speech) for RTP's audio-level "
        "header extension. mode=pass lets the audio through untouched; mode=gate lets through only the "
        "20 ms frames inside speech, with their timestamps, later by the analyzer's decision delay, which the "
        "LATENCY query reports. GAP buffers are silence to the analyzer. The meter by design: a run's first "
        "readings fall from 0 dBFS, snr-pct may be negative in speech, and too_noisy takes precedence over "
        "too_loud and too_soft for as long as the noise estimate lasts. Manual: %s",
        rates, OKU_GST_MANUAL);
    gst_element_class_set_metadata(element_class, "Voice activity analyzer", "Filter/Analyzer/Audio", description,
                                   "oku developers");
    g_free(description);
    g_free(rates);
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
    gst_segment_init(&self->segment, GST_FORMAT_TIME);
}
