// keldctl put, get and rm: a file (or standard input and output) to and
// from an image, in large transfers, with a SHA-256 of the bytes moved; only
// complete images restore, and a put that does not finish leaves none.
#include "KeldCtlCommands.h"
#include "KeldCtlExit.h"
#include "KeldCtlOutput.h"
#include "KeldCtlPipeline.h"
#include "KeldCtlStorage.h"
#include "WriteBackStarter.h"

#include <openssl/evp.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace keldctl {

namespace {

std::runtime_error systemError(const std::string& doing, int err = errno)
{
    return std::runtime_error(doing + " failed: " + std::strerror(err));
}

class Sha256 {
public:
    Sha256() : m_ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free)
    {
        if (!m_ctx || EVP_DigestInit_ex(m_ctx.get(), EVP_sha256(), nullptr) != 1) throw std::runtime_error("SHA-256 is not available");
    }
    void add(const char* data, std::size_t n) { EVP_DigestUpdate(m_ctx.get(), data, n); }
    std::string hex()
    {
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int len = 0;
        EVP_DigestFinal_ex(m_ctx.get(), digest, &len);
        static const char digits[] = "0123456789abcdef";
        std::string out;
        for (unsigned int i = 0; i < len; ++i) {
            out += digits[digest[i] >> 4];
            out += digits[digest[i] & 0xF];
        }
        return out;
    }

private:
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> m_ctx;
};

// Fills buf from fd up to its end or the end of the input.
std::size_t readFully(int fd, char* buf, std::size_t len, const std::string& name)
{
    std::size_t got = 0;
    while (got < len) {
        const ssize_t n = readInterruptibly(fd, buf + got, len - got);
        if (n == 0) break;
        if (n < 0) throw systemError("reading " + name);
        got += static_cast<std::size_t>(n);
    }
    return got;
}

void writeFully(int fd, const char* buf, std::size_t len, const std::string& name)
{
    while (len > 0) {
        const ssize_t n = write(fd, buf, len);
        if (n < 0) {
            if (errno == EINTR) continue;
            throw systemError("writing " + name);
        }
        buf += n;
        len -= static_cast<std::size_t>(n);
    }
}

std::string baseName(const std::string& path)
{
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string directoryOf(const std::string& path)
{
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// A file written under a hidden name beside its target and renamed onto it
// only when complete and on disk, so the target never holds part of a file.
class AtomicFile {
public:
    explicit AtomicFile(const std::string& target) : m_target(target)
    {
        std::string temp = directoryOf(target) + "/." + baseName(target) + ".keldctl-XXXXXX";
        m_fd = mkstemp(&temp[0]);
        if (m_fd < 0) throw systemError("creating a file beside " + target);
        m_temp = temp;
    }
    ~AtomicFile()
    {
        if (m_fd >= 0) close(m_fd);
        if (!m_temp.empty()) unlink(m_temp.c_str());
    }
    int fd() const { return m_fd; }
    void commit()
    {
        const mode_t mask = umask(0);
        umask(mask);
        if (fchmod(m_fd, 0666 & ~mask) != 0 || fsync(m_fd) != 0) throw systemError("writing " + m_target);
        const int rc = close(m_fd);
        m_fd = -1;
        if (rc != 0) throw systemError("writing " + m_target);
        if (rename(m_temp.c_str(), m_target.c_str()) != 0) throw systemError("renaming onto " + m_target);
        m_temp.clear();
    }

private:
    std::string m_target, m_temp;
    int m_fd = -1;
};

// The file put reads, or standard input for "-".
struct InputFile {
    explicit InputFile(const std::string& file)
        : fd(file == "-" ? STDIN_FILENO : open(file.c_str(), O_RDONLY | O_CLOEXEC)), owned(file != "-")
    {
        if (fd < 0) throw systemError("opening " + file);
    }
    ~InputFile()
    {
        if (owned) close(fd);
    }
    const int fd;
    const bool owned;
};

struct Moved {
    std::string sha256;
    std::uint64_t bytes = 0;
    double seconds = 0;
};

// A file name as sha256sum writes it: one with a backslash or a line break
// gets a backslash in front of the line and those characters escaped.
std::string checkName(const std::string& name, bool& escaped)
{
    escaped = name.find_first_of("\\\n") != std::string::npos;
    if (!escaped) return name;
    std::string out;
    for (char c : name) out += c == '\\' ? "\\\\" : c == '\n' ? "\\n" : std::string(1, c);
    return out;
}

// The result: "SHA256  FILE" as sha256sum writes it (so that sha256sum -c
// reads it back against the file), and the rest (bytes, image, time, rate)
// on standard error; in JSON mode all of it in one object.  Both go to
// standard error when standard output carries the data.
void report(const Context& ctx, const Moved& m, const std::string& image, const std::string& file, bool dataOnStdout)
{
    std::ostream& out = dataOnStdout ? std::cerr : std::cout;
    const double rate = m.seconds > 0 ? m.bytes / m.seconds : 0;
    if (ctx.json) {
        const json j{{"image", image}, {"file", file}, {"bytes", m.bytes}, {"sha256", m.sha256},
                     {"seconds", m.seconds}};
        out << j.dump(-1, ' ', false, json::error_handler_t::replace) << '\n';
        return;
    }
    bool escaped = false;
    const std::string name = checkName(file, escaped);
    out << (escaped ? "\\" : "") << m.sha256 << "  " << name << std::endl;
    if (ctx.quiet) return;
    char timing[64];
    std::snprintf(timing, sizeof(timing), "%.2f s", m.seconds);
    std::cerr << "keldctl: " << m.bytes << " bytes  " << image << "  " << timing << "  "
              << humanBytes(static_cast<std::uint64_t>(rate)) << "/s" << std::endl;
}

bool showProgress(const Context& ctx)
{
    return !ctx.quiet && isatty(STDERR_FILENO);
}

std::uint64_t sizeOf(int fd)
{
    struct stat st;
    return fstat(fd, &st) == 0 && S_ISREG(st.st_mode) ? static_cast<std::uint64_t>(st.st_size) : 0;
}

Moved writeImage(const Context& ctx, Storage& st, sts_handle_t image, int fd, const std::string& file)
{
    Sha256 sha;
    Progress progress(sizeOf(fd), showProgress(ctx));
    sts_uint64_t offset = 0;
    runPipeline(
        ctx.transferBytes,
        [&](char* buf, std::size_t len) {
            const std::size_t n = readFully(fd, buf, len, file);
            sha.add(buf, n);
            return n;
        },
        [&](const char* buf, std::size_t len) {
            while (len > 0) {
                sts_uint64_t done = 0;
                Storage::check(st.api()->stsa_write_image(image, nullptr, const_cast<char*>(buf), len, offset, &done),
                               "writing at offset " + std::to_string(offset));
                if (done == 0 || done > len) throw StorageError("writing at offset " + std::to_string(offset), STS_EINVAL_ARG);
                offset += done;
                buf += done;
                len -= done;
                progress.add(done);
            }
        });
    progress.finish();
    return Moved{sha.hex(), offset, progress.seconds()};
}

Moved readImage(const Context& ctx, Storage& st, sts_handle_t image, std::uint64_t size, int fd, const std::string& file)
{
    Sha256 sha;
    Progress progress(size, showProgress(ctx));
    WriteBackStarter writeBack;   // the disk starts on the file while the image comes in
    sts_uint64_t offset = 0;
    runPipeline(
        ctx.transferBytes,
        [&](char* buf, std::size_t len) -> std::size_t {
            // The size read at the open is the end: no read past it.
            if (offset >= size) return 0;
            const sts_uint64_t want = std::min<sts_uint64_t>(len, size - offset);
            sts_uint64_t done = 0;
            Storage::check(st.api()->stsa_read_image(image, buf, want, offset, &done),
                           "reading at offset " + std::to_string(offset));
            if (done > want) throw StorageError("reading at offset " + std::to_string(offset), STS_EINVAL_ARG);
            // A short read is the end of the image.
            offset = done < want ? size : offset + done;
            progress.add(done);
            return static_cast<std::size_t>(done);
        },
        [&](const char* buf, std::size_t len) {
            sha.add(buf, len);
            writeFully(fd, buf, len, file);
            writeBack.wrote(fd, len);
        });
    progress.finish();
    return Moved{sha.hex(), progress.done(), progress.seconds()};
}

std::string imagePath(const std::string& server, const std::string& lsu, const ImageName& name)
{
    return server + "/" + lsu + "/" + name.text();
}

// Removes the image of a put that did not finish.  It goes while still open:
// closing it first would make it complete, if only for a moment.  When it
// cannot go (the service is gone), its handle is not closed either, so that
// what is left stays incomplete.
void discardImage(Storage& st, const sts_lsu_t& lsu, const sts_image_def_t& def, sts_handle_t h,
                  const std::string& path)
{
    const int rc = st.api()->stsa_delete_image(&lsu, &def, 0);
    if (rc == 0) {
        st.close(h);
        return;
    }
    st.forget(h);
    std::fprintf(stderr, "keldctl: %s is left incomplete: removing it failed: %d %s; keldctl rm --incomplete "
                         "removes it later\n", path.c_str(), rc, errorText(rc, st.definition().sd_proxy).c_str());
}

} // namespace

int putFile(const Context& ctx, const std::string& file, const std::string& server, const std::string& lsuName,
            const std::string& image)
{
    const bool fromStdin = file == "-";
    if (fromStdin && image.empty()) throw usageError("put from standard input needs an IMAGE name");
    const ImageName name = freshImageName(image.empty() ? baseName(file) : image);
    const InputFile input(file);

    Storage st(ctx.proxy, ctx.verbose);
    const sts_lsu_t lsu = st.lsu(st.openServer(server), lsuName);
    const sts_image_def_t def = imageDefinition(name);
    const std::string path = imagePath(server, lsuName, name);
    sts_handle_t h = nullptr;
    Storage::check(st.api()->stsa_create_image(const_cast<sts_lsu_t*>(&lsu), &def, 0, &h), "creating image " + path);
    st.keep(h);
    Moved moved;
    try {
        moved = writeImage(ctx, st, h, input.fd, fromStdin ? "standard input" : file);
        // The end of a pipe may be Ctrl-C stopping its writer too: an
        // interruption seen now still means the input is not all there.
        throwIfInterrupted();
        // The close is where the image becomes complete.
        Storage::check(st.close(h), "closing image " + name.text());
    } catch (...) {
        discardImage(st, lsu, def, h, path);
        throw;
    }
    report(ctx, moved, path, fromStdin ? "-" : file, false);
    return 0;
}

int getFile(const Context& ctx, const std::string& server, const std::string& lsuName, const std::string& image,
            const std::string& file, bool allowIncomplete)
{
    const bool toStdout = file == "-";
    Storage st(ctx.proxy, ctx.verbose);
    const sts_lsu_t lsu = st.lsu(st.openServer(server), lsuName);
    // A base name stands for its newest complete image; an incomplete one
    // is restored only when named in full, and asked for.
    const bool named = parseImageName(image).full();
    const sts_image_def_t def = st.findImage(lsu, image, named ? Storage::Pick::Newest : Storage::Pick::NewestComplete);
    const std::string path = imagePath(server, lsuName, nameOf(def));
    sts_handle_t h = nullptr;
    Storage::check(st.api()->stsa_open_image(&lsu, &def, OPEN_FOR_READING, &h), "opening image " + path);
    st.keep(h);
    sts_image_info_t info;
    std::memset(&info, 0, sizeof(info));
    Storage::check(st.api()->stsa_get_image_prop(h, &info), "reading image " + path);
    if (!isComplete(info) && !allowIncomplete) {
        throw std::runtime_error("image " + path + " is " + stateText(info) +
                                 ", not a whole backup; --allow-incomplete restores what it holds");
    }

    Moved moved;
    if (toStdout) {
        moved = readImage(ctx, st, h, info.imo_size, STDOUT_FILENO, "standard output");
    } else {
        AtomicFile out(file);
        moved = readImage(ctx, st, h, info.imo_size, out.fd(), file);
        out.commit();
    }
    report(ctx, moved, path, file, toStdout);
    return 0;
}

int removeImage(const Context& ctx, const std::string& server, const std::string& lsuName, const std::string& image)
{
    Storage st(ctx.proxy, ctx.verbose);
    const sts_lsu_t lsu = st.lsu(st.openServer(server), lsuName);
    const sts_image_def_t def = st.findImage(lsu, image, Storage::Pick::Unique);
    const std::string path = imagePath(server, lsuName, nameOf(def));
    Storage::check(st.api()->stsa_delete_image(&lsu, &def, 0), "removing image " + path);
    if (ctx.json) {
        printJson(json{{"removed", path}});
    } else {
        std::cout << "removed " << path << '\n';
    }
    return 0;
}

int removeIncomplete(const Context& ctx, const std::string& server, const std::string& lsuName)
{
    Storage st(ctx.proxy, ctx.verbose);
    const sts_lsu_t lsu = st.lsu(st.openServer(server), lsuName);
    json removed = json::array();
    for (const sts_image_def_t& def : st.images(lsu)) {
        if (!isIncomplete(st.imageInfo(lsu, def))) continue;
        const std::string path = imagePath(server, lsuName, nameOf(def));
        Storage::check(st.api()->stsa_delete_image(&lsu, &def, 0), "removing image " + path);
        removed.push_back(path);
        if (!ctx.json) std::cout << "removed " << path << std::endl;
    }
    if (ctx.json) printJson(json{{"removed", removed}});
    return 0;
}

} // namespace keldctl
