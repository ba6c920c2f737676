#include "LiveOptions.h"

#include <stdexcept>

namespace live {

const char* const LiveCommandLine::usage =
    "usage: stylus-live [options]\n"
    "  --listen ADDR:PORT      where to serve the page (default 127.0.0.1:8765; port 0: any free port)\n"
    "  --config FILE           predictor configuration, JSON (default: the shipped one)\n"
    "  --recordings DIR        where each session's recording directory is made\n"
    "                          (default: stylus-live-recordings)\n"
    "  --replay PROGRAM        stylus-replay, for the report of a finished session\n"
    "                          (default: the one built beside this program; empty: show the command)\n"
    "  --log FILE              where the library's log lines go (default: stylus-live.log in the\n"
    "                          recordings directory)\n"
    "  --verbose               the library's log lines on standard error instead\n"
    "  --max-message-bytes N   largest message a page may send (default 65536)\n"
    "  --max-rate N            messages per second a page may send on average (default 250)\n"
    "  --burst N               messages a page may send at once above that rate (default 60)\n"
    "Open the printed address in a browser and draw with a pen, a finger or the mouse.\n";

namespace {

double positiveNumber(const std::string& option, const std::string& value) {
    std::size_t used = 0;
    double number = 0;
    try {
        number = std::stod(value, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used != value.size() || !(number > 0) || number > 1e9) {
        throw std::invalid_argument(option + ": expected a positive number, not \"" + value + "\"");
    }
    return number;
}

void parseListen(const std::string& value, LiveOptions& options) {
    const std::size_t colon = value.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == value.size()) {
        throw std::invalid_argument("--listen: expected ADDR:PORT, not \"" + value + "\"");
    }
    const std::string port = value.substr(colon + 1);
    if (port.find_first_not_of("0123456789") != std::string::npos || port.size() > 5 || std::stoi(port) > 65535) {
        throw std::invalid_argument("--listen: port must be 0 to 65535, not \"" + port + "\"");
    }
    options.address = value.substr(0, colon);
    if (options.address.size() > 2 && options.address.front() == '[' && options.address.back() == ']') {
        options.address = options.address.substr(1, options.address.size() - 2);
    }
    options.port = static_cast<unsigned short>(std::stoi(port));
}

}  // namespace

LiveOptions LiveCommandLine::parse(const std::vector<std::string>& args, const std::string& defaultConfig,
                                   const std::string& defaultReplay) {
    LiveOptions options;
    options.configPath = defaultConfig;
    options.replayPath = defaultReplay;
    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string option = args[i];
        std::string value;
        bool hasValue = false;
        const std::size_t equals = option.find('=');
        if (option.rfind("--", 0) == 0 && equals != std::string::npos) {
            value = option.substr(equals + 1);
            option = option.substr(0, equals);
            hasValue = true;
        }
        if (option == "--help" || option == "-h") {
            options.help = true;
            continue;
        }
        if (option == "--verbose") {
            options.verbose = true;
            continue;
        }
        auto next = [&]() -> std::string {
            if (hasValue) {
                return value;
            }
            if (i + 1 >= args.size()) {
                throw std::invalid_argument(option + ": missing value");
            }
            return args[++i];
        };
        if (option == "--listen") {
            parseListen(next(), options);
        } else if (option == "--config") {
            options.configPath = next();
        } else if (option == "--recordings") {
            options.recordingsDir = next();
        } else if (option == "--replay") {
            options.replayPath = next();
        } else if (option == "--log") {
            options.logPath = next();
        } else if (option == "--max-message-bytes") {
            options.maxMessageBytes = static_cast<std::size_t>(positiveNumber(option, next()));
        } else if (option == "--max-rate") {
            options.maxMessagesPerSecond = positiveNumber(option, next());
        } else if (option == "--burst") {
            options.messageBurst = positiveNumber(option, next());
        } else {
            throw std::invalid_argument("unknown option \"" + args[i] + "\"");
        }
    }
    return options;
}

}  // namespace live
