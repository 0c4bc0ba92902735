// The host's serial port: a terminal device (a real port or the peer of a
// pseudo-terminal) in raw 8N1 mode, and one request/reply exchange on it.
#ifndef HOSTSIM_SERIAL_PORT_H
#define HOSTSIM_SERIAL_PORT_H

#include <cstdint>
#include <string>
#include <vector>

namespace hostsim {

// True for the rates the port can be set to.
bool IsSupportedBaud(int baud);

class SerialPort {
public:
    SerialPort() = default;
    ~SerialPort();
    SerialPort(const SerialPort&) = delete;
    SerialPort& operator=(const SerialPort&) = delete;

    // Opens path and sets it to raw 8N1 at baud, no flow control, no modem
    // control. False with a reason when the path cannot be opened or is not
    // a terminal device.
    bool open(const std::string& path, int baud, std::string* error);
    void close();
    bool isOpen() const { return fd_ >= 0; }
    // A pseudo-terminal delivers at once; with a rate set here each request
    // takes as long to send as it would on a line of that rate (10 bits a
    // byte), so the exchange rate is the line's. 0: no pacing (a real port
    // paces itself; its requests are drained before the reply timeout starts).
    void setPaceBaud(int baud) { paceBaud_ = baud; }
    const std::string& path() const { return path_; }

    enum class Outcome {
        kReply,    // a complete reply arrived
        kRefused,  // the controller answered DLE NAK
        kTimeout,  // nothing complete within the timeout
        kStopped,  // wakeFd became readable (the program is stopping)
        kError,    // the line failed (error() says how)
    };

    // Drops stale input, writes the request and collects the reply until it
    // is complete, the timeout passes or wakeFd (if not -1) becomes
    // readable. *reply receives every byte taken, as received.
    Outcome exchange(const uint8_t* request, std::size_t n, int timeoutMs, int wakeFd,
                     std::vector<uint8_t>* reply);
    const std::string& error() const { return error_; }

private:
    int fd_ = -1;
    int paceBaud_ = 0;
    std::string path_;
    std::string error_;
};

}  // namespace hostsim

#endif
