/*
 * gstoku.h - what the okuvad and okuagc elements share: caps from the
 * library's input rates and channel limit, properties made from its settings
 * tables, and the mapping from positions of a run to buffer timestamps.
 */
#ifndef GST_OKU_H
#define GST_OKU_H

#include <gst/audio/gstaudiofilter.h>
#include <gst/gst.h>
#include <oku.h>

G_BEGIN_DECLS

#define GST_TYPE_OKU_VAD (gst_oku_vad_get_type())
G_DECLARE_FINAL_TYPE(GstOkuVad, gst_oku_vad, GST, OKU_VAD, GstAudioFilter)

#define GST_TYPE_OKU_AGC (gst_oku_agc_get_type())
G_DECLARE_FINAL_TYPE(GstOkuAgc, gst_oku_agc, GST, OKU_AGC, GstAudioFilter)

GST_ELEMENT_REGISTER_DECLARE(okuvad)
GST_ELEMENT_REGISTER_DECLARE(okuagc)

/*
 * What the services take as it comes: 16-bit or float samples in native byte
 * order, interleaved, 1 to oku_max_channels() channels, at every rate of
 * oku_input_rates(). The library mixes down and converts; the elements never do.
 */
GstCaps* gst_oku_caps_new(void);

/* Whether the negotiated samples are float (else 16-bit). */
#define GST_OKU_IS_FLOAT(info) (GST_AUDIO_INFO_FORMAT(info) == GST_AUDIO_FORMAT_F32)

/* The elements' manual, as the URI gst-inspect-1.0 shows. */
#ifndef OKU_GST_MANUAL
#define OKU_GST_MANUAL "file:///usr/local/share/doc/OKUVAD/gstreamer.md"
#endif

/*
 * The settings of one service as element properties: "params" (the parameter
 * string) and one typed property per entry of oku_settings(). The string the
 * service gets is the explicitly set typed properties first, then "params":
 * the first occurrence of a key wins, so a typed property overrides the same
 * key in "params". Guarded by the element's object lock.
 */
typedef struct {
    int service;
    const oku_setting* table;
    size_t count;
    gchar* params;
    gboolean* is_set; /* one per setting: set through its typed property */
    gdouble* values;  /* the value set */
} GstOkuSettings;

/* Installs "params" as prop_id first_id and the typed settings after it. */
void gst_oku_settings_install(GObjectClass* klass, int service, guint first_id);
void gst_oku_settings_init(GstOkuSettings* s, int service);
void gst_oku_settings_clear(GstOkuSettings* s);
/* FALSE when prop_id is not one of the settings' properties. Call with the object lock held. */
gboolean gst_oku_settings_set(GstOkuSettings* s, guint first_id, guint prop_id, const GValue* value);
gboolean gst_oku_settings_get(const GstOkuSettings* s, guint first_id, guint prop_id, GValue* value);
/* The parameter string the service gets (free with g_free). Call with the object lock held. */
gchar* gst_oku_settings_string(const GstOkuSettings* s);
/*
 * Checks the settings with oku_params_check; on failure posts an element
 * error that names the problem and returns FALSE. With warn_unknown, keys of
 * "params" that no setting of the service has (which the service ignores)
 * are posted as an element warning. Takes the object lock itself; *params
 * (if given) receives the checked string.
 */
gboolean gst_oku_settings_check(GstElement* element, GstOkuSettings* s, gboolean warn_unknown, gchar** params);

/*
 * Counts the float samples that are NaN or infinite, which the services take
 * as silence: count is the handle's own count, counted what the element has
 * taken of it so far, *total the element's count since it started (guarded
 * by the object lock). The first such sample posts a warning.
 */
void gst_oku_count_nonfinite(GstElement* element, guint64* total, guint64* counted, guint64 count);
#define GST_OKU_NONFINITE_BLURB "NaN or infinite float samples met since the element started (taken as silence)"

/*
 * Positions of a run (input frames counted from its first) as buffer times.
 * The first buffer of a run anchors position 0 at its timestamp (at the
 * segment's start when it has none); a later buffer whose timestamp is more
 * than 40 ms away from where the samples before it put it, or that is marked
 * DISCONT and off by more than a sample, anchors its first position anew, so
 * that positions after a gap in the input keep their buffers' times.
 */
#define GST_OKU_ANCHORS 64
typedef struct {
    guint64 position;
    GstClockTime time;
} GstOkuAnchor;

typedef struct {
    guint64 samples; /* frames received in the run */
    guint n_anchors;
    GstOkuAnchor anchors[GST_OKU_ANCHORS];
} GstOkuTimeline;

/*
 * The rate is the one of the filter's audio info and the segment its base
 * class's, both as the element receives the run's buffers (new caps end a
 * run before the filter takes them).
 */
void gst_oku_timeline_start(GstOkuTimeline* t);
/* Records the next buffer (call before adding its frames to t->samples). */
void gst_oku_timeline_add(GstOkuTimeline* t, GstAudioFilter* filter, GstBuffer* buf);
/* The buffer time of a position of the run; GST_CLOCK_TIME_NONE before the first buffer. */
GstClockTime gst_oku_timeline_time(const GstOkuTimeline* t, GstAudioFilter* filter, guint64 position);
/*
 * Stream time and running time of a position (GST_CLOCK_TIME_NONE outside the
 * segment). A segment in another format than TIME gives the buffer time itself.
 */
void gst_oku_timeline_times(const GstOkuTimeline* t, GstAudioFilter* filter, guint64 position, guint64* stream_time,
                            guint64* running_time);

G_END_DECLS

#endif
