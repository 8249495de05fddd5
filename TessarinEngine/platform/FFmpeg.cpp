#include "TessarinEngine/platform/FFmpeg.h"

#include <cerrno>
#include <sys/stat.h>

namespace FFmpeg {

namespace {

// The containers cameras and sound recorders write, and those a renamed file may turn out to
// be. Each holds its media in itself: the demuxers that read a list of other files or URLs
// (concat, HLS, DASH, IMF, SDP, image sequences) are left out, so a playlist saved with a media
// extension is refused instead of read.
constexpr const char* kSelfContainedDemuxers =
    "mov,mxf,wav,w64,aiff,caf,mp3,aac,ac3,eac3,dts,truehd,mlp,flac,ogg,wv,ape,tta,au,amr,loas,"
    "matroska,avi,asf,mpegts,mpeg,dv,flv,gxf,lxf,r3d";

using Opener = decltype(AVFormatContext::io_open);

// FFmpeg's own opener: every new context starts with the same one.
Opener defaultOpener() {
    static const Opener opener = [] {
        AVFormatContext* context = avformat_alloc_context();
        const Opener f = context != nullptr ? context->io_open : nullptr;
        avformat_free_context(context);
        return f;
    }();
    return opener;
}

// The container's own file is opened while the context holds no I/O yet; whatever a demuxer
// asks for after that (a referenced movie, a segment) is refused.
int openOnlyTheContainer(AVFormatContext* s, AVIOContext** pb, const char* url, int flags,
                         AVDictionary** options) {
    const Opener open = defaultOpener();
    if (s->pb != nullptr || open == nullptr) {
        return AVERROR(EPERM);
    }
    return open(s, pb, url, flags, options);
}

struct Dictionary {
    AVDictionary* entries = nullptr;
    ~Dictionary() { av_dict_free(&entries); }
};

} // namespace

std::variant<FormatContext, std::string> openLocalMedia(const std::filesystem::path& path,
                                                        AVIOContext* bytes) {
    silenceLogs();
    if (bytes == nullptr) {
        struct stat st {};
        if (::stat(path.c_str(), &st) != 0) {
            return errorText(AVERROR(errno));
        }
        if (!S_ISREG(st.st_mode)) {
            return std::string("not a regular file");
        }
    }
    AVFormatContext* raw = avformat_alloc_context();
    if (raw == nullptr) {
        return errorText(AVERROR(ENOMEM));
    }
    raw->pb = bytes;
    raw->io_open = openOnlyTheContainer;
    Dictionary options;
    av_dict_set(&options.entries, "protocol_whitelist", "file", 0);
    av_dict_set(&options.entries, "format_whitelist", kSelfContainedDemuxers, 0);
    const std::string url = "file:" + path.string();
    // avformat_open_input frees the context itself on failure.
    if (int rc = avformat_open_input(&raw, url.c_str(), nullptr, &options.entries); rc < 0) {
        return errorText(rc);
    }
    return FormatContext(raw);
}

} // namespace FFmpeg
