/// @file
/// What the programs that receive media share, so that they are measured alike: command line, waiting, JSON; and an
/// RTSP client for the receivers that bring none.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace media {

struct Options
{
    uint16_t port = 0;
    unsigned streams = 0;
    uint64_t packets = 0; ///< that are sent; 0: unknown
    bool udp = false;
    std::string recordings; ///< the folder they go to; empty: nothing is recorded

    std::string url() const { return "rtsp://127.0.0.1:" + std::to_string(port) + "/stream"; }
    std::string recording(unsigned stream) const { return recordings + '/' + std::to_string(stream) + ".mkv"; }
};

/// The receiver of all streams. Its end closes them. Everything is called on one thread, and throws what failed.
class Receiver
{
public:
    virtual ~Receiver() = default;
    /// Opens the next stream, and has it play.
    virtual void add() = 0;
    /// @return how many RTP packets all streams have received
    virtual uint64_t packets() = 0;
    /// Ends the recordings, and returns when they are whole.
    virtual void endRecordings() = 0;
};

/// Ways to receive, by their names on the command line.
using Receivers = std::map<std::string, std::function<std::unique_ptr<Receiver>(const Options &)>>;

/// Reads the command line, receives until nothing comes any more, prints the JSON.
/// @return the program's exit code
int run(int argc, char **argv, const Receivers &receivers);

/// One session with the sink server, by blocking calls, for its first track.
class PlainSession
{
public:
    explicit PlainSession(const Options &options);
    ~PlainSession();
    PlainSession(const PlainSession &) = delete;
    PlainSession &operator=(const PlainSession &) = delete;
    /// @param rtpPort  where its media goes; 0: through the connection. What follows PLAY's answer there is left unread
    void play(uint16_t rtpPort);
    int connection() const { return m_fd; }

private:
    std::string ask(const std::string &method, const std::string &url, const std::string &headers);
    std::string readAnswer() const;

    const Options &m_options;
    int m_fd = -1;
    unsigned m_cseq = 0;
    std::string m_id;
};

} // namespace media
