#pragma once

#include "Fuzz.h"
#include "Qvl14443bfl.h"

#include <array>

/// Exactly as much room as an operation may use, so that a byte too many shows.
template <std::size_t N>
struct Room {
    std::unique_ptr<std::array<std::uint8_t, N>> bytes = std::make_unique<std::array<std::uint8_t, N>>();
    operator std::uint8_t*() { return bytes->data(); }
};

constexpr std::size_t kDriverOperations = 15;

/// One of the operations that pick the replies of a reader apart. A driver that does not have it refuses it.
inline void useDriver(Qvl14443bfl& driver, std::size_t operation) {
    Room<1> sak, uidLen, atsLen, byte;
    Room<2> atq;
    Room<10> uid;
    Room<12> key;
    Room<16> block;
    Room<55> version;
    Room<255> ats;
    Room<300> answer;
    std::uint16_t length = 300;
    std::uint8_t* reply = nullptr;
    int replyLen = 0;
    const std::function<void()> operations[kDriverOperations] = {
        [&] { driver.piccActivateIdle(0, atq, sak, uid, uidLen); },
        [&] { driver.piccActivateIdle(0, atq, sak, uid, uidLen, ats, atsLen); },
        [&] { driver.piccActivateWakeup(0, atq, sak, uid, 4); },
        [&] { driver.piccActivateWakeup(0, atq, sak, uid, 4, ats, atsLen); },
        [&] { driver.piccRead(4, block); },
        [&] { driver.piccExchangeBlock(uid, 5, answer, &length, 1, 0); },
        [&] { driver.pcdGetFwVersion(version, length); },
        [&] { driver.pcdGetSnr(uid, length); },
        [&] { driver.pcdConfig(); },
        [&] { driver.pcdRelay(uid, 3, reply, replyLen); },
        [&] { driver.piccHalt(); },
        [&] { driver.piccActivateIdleLoop(0, atq, sak, uid, uidLen, 1); },
        [&] { driver.pcdGetAttrib(sak, uidLen, byte, atq, uid); },
        [&] { driver.hostCodeKey(uid, key); },
        [&] { driver.piccCascAnticoll(0x93, 0, uid); },
    };
    operations[operation % kDriverOperations]();
    delete[] reply;
}
