// The smallest complete host of the plug-in: load it with dlopen, queue a
// write and a read of N7:5, run the exchange loop on a serial line
// (ComCommunication, send the frame, read the reply, DataCom) until the
// driver has nothing left to send, then take the value from its image.
//
//   consumer <serial port> [plug-in]      exit status 0: the value read back
#include <ab_controllogix_compactlogix.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>

#ifndef CONSUMER_PLUGIN
#define CONSUMER_PLUGIN "libAB_ControlLogix_CompactLogix.so"
#endif

namespace {

// The entry points this host uses, resolved once by name.
struct Api {
    decltype(&FlashLocalRegister) flashLocalRegister;
    decltype(&SetComInfo) setComInfo;
    decltype(&ComCommunication) comCommunication;
    decltype(&DataCom) dataCom;
    decltype(&AddListOnceReadVar) addListOnceReadVar;
    decltype(&GetRegisterData) getRegisterData;
    decltype(&SetRegisterData) setRegisterData;
};

template <typename T>
bool Resolve(void* handle, const char* name, T* out) {
    *out = reinterpret_cast<T>(dlsym(handle, name));
    if (!*out) std::fprintf(stderr, "consumer: %s missing: %s\n", name, dlerror());
    return *out != nullptr;
}

bool Load(const char* path, Api* api) {
    void* handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        std::fprintf(stderr, "consumer: %s\n", dlerror());
        return false;
    }
    return Resolve(handle, "FlashLocalRegister", &api->flashLocalRegister) &&
           Resolve(handle, "SetComInfo", &api->setComInfo) &&
           Resolve(handle, "ComCommunication", &api->comCommunication) &&
           Resolve(handle, "DataCom", &api->dataCom) &&
           Resolve(handle, "AddListOnceReadVar", &api->addListOnceReadVar) &&
           Resolve(handle, "GetRegisterData", &api->getRegisterData) &&
           Resolve(handle, "SetRegisterData", &api->setRegisterData);
}

// 19200 baud, 8 data bits, no parity, one stop bit, raw.
int OpenLine(const char* path) {
    const int fd = open(path, O_RDWR | O_NOCTTY);
    termios tio;
    if (fd < 0 || tcgetattr(fd, &tio) != 0) return -1;
    cfmakeraw(&tio);
    cfsetspeed(&tio, B19200);
    tio.c_cflag |= CLOCAL | CREAD;
    return tcsetattr(fd, TCSANOW, &tio) == 0 ? fd : -1;
}

int64_t NowMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// The reply: replyLen bytes when the driver knows the length, else whatever
// came before the line went quiet for 100 ms; nothing after 1 s of silence.
QByteArray ReadReply(int fd, int replyLen) {
    QByteArray reply;
    int64_t deadline = NowMs() + 1000;
    while (replyLen <= 0 || reply.size() < replyLen) {
        const int64_t left = deadline - NowMs();
        pollfd pfd{fd, POLLIN, 0};
        if (left <= 0 || poll(&pfd, 1, static_cast<int>(left)) <= 0) break;
        char buffer[256];
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n <= 0) break;
        reply.append(buffer, static_cast<int>(n));
        if (replyLen <= 0) deadline = NowMs() + 100;
    }
    return reply;
}

// Runs the exchange loop until ComCommunication has nothing to send. False
// when an exchange ends in a reported failure (result other than 0, 1, 100).
bool RunExchanges(const Api& api, int fd) {
    for (int turn = 0; turn < 100; ++turn) {
        Protocol* request = api.comCommunication();
        if (!request) return true;
        const QByteArray frame = request->frame;
        tcflush(fd, TCIFLUSH);
        if (write(fd, frame.constData(), frame.size()) != frame.size()) return false;
        const QByteArray reply = ReadReply(fd, request->replyLen);
        const RW_VAR* done = api.dataCom(reply, reply.size());
        if (done->result != 0 && done->result != 1 && done->result != 100) {
            std::fprintf(stderr, "consumer: exchange failed, result %d\n", done->result);
            return false;
        }
    }
    std::fprintf(stderr, "consumer: the driver did not finish its queue\n");
    return false;
}

uint16_t g_bits[4096], g_words[4096], g_rwi[256];

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: consumer <serial port> [plug-in]\n");
        return 2;
    }
    const char* plugin = argc > 2 ? argv[2] : CONSUMER_PLUGIN;
    Api api{};
    const int fd = OpenLine(argv[1]);
    if (!Load(plugin, &api) || fd < 0) return 1;

    api.flashLocalRegister(g_bits, g_words, g_rwi);
    static ComInfo info{};
    info.maxCount = 32;
    info.defaultStation = 1;
    info.retryLimit = 3;
    info.writeMode = 2;  // writes go to the controller
    api.setComInfo(&info);

    const int16_t written = 12345;
    QByteArray value(reinterpret_cast<const char*>(&written), 2);
    api.setRegisterData(QString(), ABCL_WORD_B, "7:5", 1, &value, 1, 1, 1);
    RW_VAR read;
    read.varId = read.varSubId = 2;
    read.addrText = "7:5";
    read.dataType = ABCL_WORD_B;
    read.station = 1;
    read.count = 1;
    if (api.addListOnceReadVar(&read, 0) == 0 || !RunExchanges(api, fd)) return 1;

    QByteArray image;
    if (api.getRegisterData(0, ABCL_WORD_B, "7:5", 0, &image, 1) != 1 || image.size() < 2) return 1;
    const int16_t got = static_cast<int16_t>((image[0] & 0xFF) | (image[1] & 0xFF) << 8);
    std::printf("N7:5 = %d via %s\n", got, plugin);
    return got == written ? 0 : 1;
}
