#include "HVLoggerKeyboard.h"

#include "HVLoggerVocabulary.h"
#include "QELselector.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <iostream>
#include <string>
#include <string_view>
#include <unistd.h>

namespace {

constexpr char escapeIntroducer = '[';
constexpr std::string_view hyphenLine = "--------------------------------\r\n";

/// What a letter key switches: lower case enables, upper case disables.
struct ComponentKey {
    char enable;
    char disable;
    const char* name;
};
constexpr std::array<ComponentKey, 8> componentKeys = {{{'e', 'E', "shell"},
                                                        {'i', 'I', "sip"},
                                                        {'l', 'L', "rvtp"},
                                                        {'m', 'M', "snmp"},
                                                        {'n', 'N', "nmos"},
                                                        {'r', 'R', "router"},
                                                        {'s', 'S', "sap"},
                                                        {'u', 'U', "ui"}}};

/// Text only: onReady() says what a key does, and docs/hvlogger.1 where the two differ.
constexpr std::array<std::string_view, 22> helpLines = {
    "Key Commands:",
    " ?   : Print this help text",
    " q   : Quit the application",
    " +/- : Enable/disable all logs.",
    " c/C : Enable/disable 'kelvo' logs.",
    " s/S : Enable/disable 'mantle' logs.",
    " w/W : Enable/disable 'websock' logs.",
    " l/L : Enable/disable 'rvtp' logs.",
    " u/U : Enable/disable 'ui' logs.",
    " h/H : Enable/disable 'hardware' logs.",
    " p/P : Enable/disable 'pots' logs.",
    " i/I : Enable/disable 'sip' logs.",
    " e/E : Enable/disable 'shell' logs.",
    " v/V : Enable/disable 'tembrix' logs.",
    " m/M : Enable/disable 'mibAgent' SNMP agent logs.",
    " d/D : Enable/disable 'frontp' display logs.",
    " a   : Reprint all messages",
    " 0-7 : Enable printout of messages with severity level higher than the",
    "       specified number (0 = prints everything, def = 6 = sevInfo).",
    " A   : Reprint all messages ??",
    " f   : Write all messages to file './logger.txt'",
    " F   : Trigger server to write all messages to file './logger.txt'"};

} // namespace

HVLoggerKeyboard::HVLoggerKeyboard(QELmediator* notified) : mediator(notified) {
    tcgetattr(fd(), &savedTermios);
    termios raw = savedTermios;
    raw.c_iflag &= ~static_cast<tcflag_t>(BRKINT | INPCK | ISTRIP | ICRNL | IXON);
    raw.c_cflag |= CS8;
    raw.c_lflag &= ~static_cast<tcflag_t>(ISIG | ICANON | ECHO | IEXTEN);
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    tcsetattr(fd(), TCSAFLUSH, &raw);
}

HVLoggerKeyboard::~HVLoggerKeyboard() {
    tcsetattr(fd(), TCSAFLUSH, &savedTermios);
}

int HVLoggerKeyboard::fd() {
    return fileno(stdin);
}

int HVLoggerKeyboard::readKey() {
    unsigned char byte = 0;
    const ssize_t count = read(fd(), &byte, 1);
    inputEnded = count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN);
    if (escapePending) {
        escapePending = false;
        return -1;
    }
    if (count != 1) {
        return -1;
    }
    escapePending = byte == escapeIntroducer;
    return byte;
}

void HVLoggerKeyboard::printHelp() {
    for (const std::string_view line : helpLines) {
        std::cout << line << "\r\n";
    }
}

bool HVLoggerKeyboard::onReady(std::int64_t /*nowUs*/) {
    const int key = readKey();
    if (inputEnded && endHeldBack) {
        selRemoveRead();
        return true;
    }
    switch (key) {
    case '?':
        printHelp();
        break;
    case 'q':
        quitRequested = true;
        break;
    case '+':
        mediator->notify(idStore, msgEnableAll, nullptr);
        break;
    case '-':
        mediator->notify(idStore, msgDisableAll, nullptr);
        break;
    case 'a': {
        std::string listing;
        mediator->notify(idStore, msgGetFormatted, &listing);
        std::cout << hyphenLine << listing << "\r\n";
        break;
    }
    case 'A':
        mediator->notify(idStore, msgReloadAll, nullptr);
        break;
    case 'f': {
        std::string fileName = dumpFileName;
        mediator->notify(idStore, msgWriteFile, fileName.data());
        std::cout << "------ " << fileName << " created\r\n";
        break;
    }
    case 'F':
        mediator->notify(idTcpClient, msgTriggerRemoteDump, nullptr);
        break;
    case 0:
        break;
    default:
        if (key >= '0' && key <= '9') {
            std::int32_t level = key - '0';
            mediator->notify(idStore, msgSetSeverity, &level);
            std::cout << "Enabling severity up to: " << level << "\r\n";
        } else if (!switchComponent(key)) {
            std::cout << hyphenLine;
        }
    }
    if (inputEnded) {
        selRemoveRead();
    }
    return true;
}

bool HVLoggerKeyboard::switchComponent(int key) const {
    for (const ComponentKey& component : componentKeys) {
        if (key == component.enable || key == component.disable) {
            std::string name = component.name;
            mediator->notify(
                idStore, key == component.enable ? msgEnableComponent : msgDisableComponent, &name);
            return true;
        }
    }
    return false;
}
