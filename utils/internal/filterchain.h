// Small steps of building and feeding a filter graph.
#pragma once

#include "utils/internal/ffmpegptr.h"

namespace mediautil {

// An empty graph that never starts a thread, or null. Channels that it sums stay within full scale.
FfPtr<AVFilterGraph> MakeGraph();

// Adds one filter instance; arguments may be null. Null for an unknown filter or refused arguments. The graph owns it.
AVFilterContext* AddFilter(AVFilterGraph* graph, const char* filter, const char* name, const char* arguments);

// Lets a video sink deliver only this pixel format, a sound sink only what the encoder takes. Negative on failure.
int RestrictSink(AVFilterContext* sink, AVPixelFormat format);
int RestrictSink(AVFilterContext* sink, const AVCodecContext& encoder);

// Feeds one frame, which stays the caller's, at time 0 and then the end of the stream: filters with two inputs pair
// their frames by time. Negative on failure.
int FeedOnly(AVFilterContext* source, const AVFrame* frame);

}  // namespace mediautil
