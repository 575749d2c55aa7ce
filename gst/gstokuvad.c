/*
 * okuvad - the voice-activity analyzer as a GStreamer element.
 *
 * In "pass" mode the audio goes through untouched while the analyzer posts
 * "voice-activity" messages (speech started or ended, dated where the
 * analyzer dates it) and "oku-volume" readings. In "gate" mode only the
 * frames the analyzer places inside speech go downstream, with their original
 * timestamps; the element then delays the audio by as long as the analyzer
 * takes to decide a frame, and says so in the LATENCY query.
 *
 * A run of the analyzer lasts from the first buffer after start, a flush, an
 * EOS or a new rate to the next of these: a new rate flushes the analyzer
 * (posting the end of open speech) and makes a new one, a flush drops it, EOS
 * flushes it. Settings and mode changed while streaming apply from the next run.
 */
#include "gstoku.h"

#include <gst/audio/audio.h>

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

enum { PROP_0, PROP_MODE, PROP_INTERVAL, PROP_SETTINGS };

struct _GstOkuVad {
    GstElement parent;
    GstPad* sinkpad;
    GstPad* srcpad;

    /* properties (object lock) */
    GstOkuSettings settings;
    GstOkuVadMode mode;
    guint64 interval;
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
    gboolean gap;            /* gate: nothing pushed yet, or a frame dropped since the last one pushed */
};

G_DEFINE_TYPE(GstOkuVad, gst_oku_vad, GST_TYPE_ELEMENT)

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

/* Gate mode: pushes one frame inside speech; records how long it was held. */
static GstFlowReturn push_frame(GstOkuVad* self, const oku_vad_result* r, gint64 received)
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
    return gst_pad_push(self->srcpad, out);
}

/*
 * Takes every queued result: posts messages and, in gate mode, pushes the
 * frames inside speech. received: samples of the run before the buffer just
 * given (-1 when draining at the end of a run, where holding is not latency).
 */
static GstFlowReturn drain(GstOkuVad* self, gint64 received)
{
    GstFlowReturn ret = GST_FLOW_OK;
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
                post_voice_activity(self, &r[k]);
                break;
            case OKU_VAD_VOLUME:
                post_volume(self, &r[k]);
                break;
            case OKU_VAD_FRAME:
                if (!r[k].speech) {
                    self->gap = TRUE;
                } else if (ret == GST_FLOW_OK) {
                    ret = push_frame(self, &r[k], received);
                }
                break;
            default:
                break;
            }
        }
    } while (count == G_N_ELEMENTS(r));
    return ret;
}

static gboolean start_run(GstOkuVad* self)
{
    gchar* params = NULL;
    if (!gst_oku_settings_check(GST_ELEMENT(self), &self->settings, &params))
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
    self->latency = latency;
    raised = latency > self->answered;
    GST_OBJECT_UNLOCK(self);
    if (raised)
        gst_element_post_message(GST_ELEMENT(self), gst_message_new_latency(GST_OBJECT(self)));
    gst_oku_timeline_start(&self->timeline, self->rate);
    self->volume_posted = FALSE;
    self->gap = TRUE;
    GST_DEBUG_OBJECT(self, "new run at %d Hz", self->rate);
    return TRUE;
}

/* Ends the run: flush decides and hands out everything pending (the end of
 * open speech included); otherwise what is pending is dropped. */
static GstFlowReturn end_run(GstOkuVad* self, gboolean flush)
{
    GstFlowReturn ret = GST_FLOW_OK;
    if (!self->vad)
        return ret;
    if (flush) {
        if (oku_vad_flush(self->vad) != OKU_OK) {
            GST_ELEMENT_ERROR(self, LIBRARY, FAILED, ("The analyzer failed: %s", oku_last_error()), (NULL));
            ret = GST_FLOW_ERROR;
        } else {
            ret = drain(self, -1);
        }
    }
    oku_vad_destroy(self->vad);
    self->vad = NULL;
    return ret;
}

/* ---- pads -------------------------------------------------------------------- */

static GstFlowReturn gst_oku_vad_chain(GstPad* pad, GstObject* parent, GstBuffer* buf)
{
    GstOkuVad* self = GST_OKU_VAD(parent);
    (void)pad;
    if (self->rate == 0) {
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION, (NULL), ("audio arrived before its caps"));
        gst_buffer_unref(buf);
        return GST_FLOW_NOT_NEGOTIATED;
    }
    if (!self->vad && !start_run(self)) {
        gst_buffer_unref(buf);
        return GST_FLOW_ERROR;
    }
    GstMapInfo map;
    if (!gst_buffer_map(buf, &map, GST_MAP_READ)) {
        GST_ELEMENT_ERROR(self, RESOURCE, READ, (NULL), ("cannot map a buffer"));
        gst_buffer_unref(buf);
        return GST_FLOW_ERROR;
    }
    if (map.size % 2)
        GST_WARNING_OBJECT(self, "a buffer of %" G_GSIZE_FORMAT " bytes: its last byte is ignored", map.size);
    const guint64 n = map.size / 2;
    const gint64 received = (gint64)self->timeline.samples;
    gst_oku_timeline_add(&self->timeline, buf, &self->segment);
    const int status = oku_vad_process(self->vad, (const int16_t*)map.data, (size_t)n);
    gst_buffer_unmap(buf, &map);
    if (status != OKU_OK) {
        GST_ELEMENT_ERROR(self, LIBRARY, FAILED, ("The analyzer failed: %s", oku_last_error()), (NULL));
        gst_buffer_unref(buf);
        return GST_FLOW_ERROR;
    }
    self->timeline.samples += n;
    GstFlowReturn ret = drain(self, received);
    if (self->run_mode == GST_OKU_VAD_MODE_PASS && ret == GST_FLOW_OK)
        return gst_pad_push(self->srcpad, buf);
    gst_buffer_unref(buf);
    return ret;
}

static gboolean gst_oku_vad_sink_event(GstPad* pad, GstObject* parent, GstEvent* event)
{
    GstOkuVad* self = GST_OKU_VAD(parent);
    switch (GST_EVENT_TYPE(event)) {
    case GST_EVENT_CAPS: {
        GstCaps* caps;
        GstAudioInfo info;
        gst_event_parse_caps(event, &caps);
        if (!gst_audio_info_from_caps(&info, caps)) {
            GST_ELEMENT_ERROR(self, CORE, NEGOTIATION, (NULL), ("caps that are not raw audio"));
            gst_event_unref(event);
            return FALSE;
        }
        if (GST_AUDIO_INFO_RATE(&info) != self->rate) {
            /* The end of the old run goes out with the old caps. */
            end_run(self, TRUE);
            self->rate = GST_AUDIO_INFO_RATE(&info);
        }
        break;
    }
    case GST_EVENT_SEGMENT:
        gst_event_copy_segment(event, &self->segment);
        if (self->segment.format != GST_FORMAT_TIME) {
            GST_DEBUG_OBJECT(self, "not a TIME segment: times follow the samples from 0");
            gst_segment_init(&self->segment, GST_FORMAT_TIME);
        }
        break;
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
    return gst_pad_event_default(pad, parent, event);
}

static gboolean gst_oku_vad_src_query(GstPad* pad, GstObject* parent, GstQuery* query)
{
    GstOkuVad* self = GST_OKU_VAD(parent);
    if (GST_QUERY_TYPE(query) != GST_QUERY_LATENCY)
        return gst_pad_query_default(pad, parent, query);
    if (!gst_pad_peer_query(self->sinkpad, query))
        return FALSE;
    gboolean live;
    GstClockTime min, max;
    gst_query_parse_latency(query, &live, &min, &max);
    GST_OBJECT_LOCK(self);
    GstClockTime ours = self->latency;
    if (!self->vad) {
        /* Not running: what the next run will add. */
        gchar* params = gst_oku_settings_string(&self->settings);
        ours = self->mode == GST_OKU_VAD_MODE_GATE ? gate_latency(params) : 0;
        g_free(params);
    }
    self->answered = MAX(self->answered, ours);
    GST_OBJECT_UNLOCK(self);
    GST_DEBUG_OBJECT(self, "latency %" GST_TIME_FORMAT, GST_TIME_ARGS(ours));
    min += ours;
    if (GST_CLOCK_TIME_IS_VALID(max))
        max += ours;
    gst_query_set_latency(query, live, min, max);
    return TRUE;
}

/* ---- element ----------------------------------------------------------------- */

static GstStateChangeReturn gst_oku_vad_change_state(GstElement* element, GstStateChange transition)
{
    GstOkuVad* self = GST_OKU_VAD(element);
    if (transition == GST_STATE_CHANGE_READY_TO_PAUSED) {
        if (!gst_oku_settings_check(element, &self->settings, NULL))
            return GST_STATE_CHANGE_FAILURE;
        self->rate = 0;
        gst_segment_init(&self->segment, GST_FORMAT_TIME);
        GST_OBJECT_LOCK(self);
        self->answered = 0;
        GST_OBJECT_UNLOCK(self);
    }
    GstStateChangeReturn ret = GST_ELEMENT_CLASS(gst_oku_vad_parent_class)->change_state(element, transition);
    if (transition == GST_STATE_CHANGE_PAUSED_TO_READY) {
        end_run(self, FALSE);
        self->rate = 0;
    }
    return ret;
}

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
    gst_oku_settings_clear(&self->settings);
    G_OBJECT_CLASS(gst_oku_vad_parent_class)->finalize(object);
}

static void gst_oku_vad_class_init(GstOkuVadClass* klass)
{
    GObjectClass* gobject_class = G_OBJECT_CLASS(klass);
    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
    GST_DEBUG_CATEGORY_INIT(gst_oku_vad_debug, "okuvad", 0, "oku voice-activity analyzer");

    gobject_class->set_property = gst_oku_vad_set_property;
    gobject_class->get_property = gst_oku_vad_get_property;
    gobject_class->finalize = gst_oku_vad_finalize;
    element_class->change_state = gst_oku_vad_change_state;

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
    gst_element_class_add_pad_template(element_class, gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, caps));
    gst_element_class_add_pad_template(element_class, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
    gst_caps_unref(caps);
    gst_element_class_set_static_metadata(
        element_class, "Voice activity analyzer", "Filter/Analyzer/Audio",
        "Posts voice-activity messages where speech starts and ends and oku-volume readings; can pass only speech",
        "oku developers");
    gst_type_mark_as_plugin_api(GST_TYPE_OKU_VAD_MODE, 0);
}

static void gst_oku_vad_init(GstOkuVad* self)
{
    GstElementClass* klass = GST_ELEMENT_GET_CLASS(self);
    self->sinkpad = gst_pad_new_from_template(gst_element_class_get_pad_template(klass, "sink"), "sink");
    gst_pad_set_chain_function(self->sinkpad, GST_DEBUG_FUNCPTR(gst_oku_vad_chain));
    gst_pad_set_event_function(self->sinkpad, GST_DEBUG_FUNCPTR(gst_oku_vad_sink_event));
    GST_PAD_SET_PROXY_CAPS(self->sinkpad);
    GST_PAD_SET_PROXY_ALLOCATION(self->sinkpad);
    gst_element_add_pad(GST_ELEMENT(self), self->sinkpad);

    self->srcpad = gst_pad_new_from_template(gst_element_class_get_pad_template(klass, "src"), "src");
    gst_pad_set_query_function(self->srcpad, GST_DEBUG_FUNCPTR(gst_oku_vad_src_query));
    GST_PAD_SET_PROXY_CAPS(self->srcpad);
    GST_PAD_SET_PROXY_ALLOCATION(self->srcpad);
    gst_element_add_pad(GST_ELEMENT(self), self->srcpad);

    gst_oku_settings_init(&self->settings, OKU_SERVICE_VAD);
    self->mode = DEFAULT_MODE;
    self->interval = DEFAULT_INTERVAL;
    gst_segment_init(&self->segment, GST_FORMAT_TIME);
}
