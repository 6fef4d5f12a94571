#pragma once

#include "NfcTamaBfl.h"
#include "TamaDevice.h"
#include "TamaDeviceFactory.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <numeric>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

using Bytes = std::vector<std::uint8_t>;

/// "4A 01 00" as bytes.
inline Bytes hex(const std::string& text) {
    std::istringstream in(text);
    Bytes bytes;
    for (unsigned value = 0; in >> std::hex >> value;)
        bytes.push_back(static_cast<std::uint8_t>(value));
    return bytes;
}

/// A frame around TFI and body, worked out here anew: a mistake of the codec under test does not cancel out.
inline Bytes frame(std::uint8_t tfi, const Bytes& body) {
    const auto len = static_cast<std::uint8_t>(body.size() + 1);
    Bytes out{0x00, 0x00, 0xFF, len, static_cast<std::uint8_t>(-len), tfi};
    out.insert(out.end(), body.begin(), body.end());
    const unsigned sum = std::accumulate(body.begin(), body.end(), unsigned{tfi});
    out.insert(out.end(), {static_cast<std::uint8_t>(-sum), 0x00});
    return out;
}
inline Bytes cmd(const std::string& text) { return frame(0xD4, hex(text)); }
inline Bytes rsp(const std::string& text) { return frame(0xD5, hex(text)); }
inline Bytes ack() { return hex("00 00 FF 00 FF 00"); }
inline Bytes errorFrame() { return hex("00 00 FF 01 FF 7F 81 00"); }

/// A reader that plays back what a test wrote down: which frames are written, and what each read then gives.
class ScriptedDevice : public TamaDevice {
  public:
    struct Step {
        enum Kind { kWrite, kRead } kind;
        Bytes bytes;
        std::int32_t result = kDeviceOk;
        std::uint32_t count = 0;  // reported by a read; the size of `bytes` unless set
    };

    /// What all devices of one test share; outlives each of them.
    struct Script {
        std::deque<Step> steps;
        int closed = 0, discarded = 0, resynchronised = 0;
        bool gone = false;
        std::int32_t openResult = kDeviceOk;
        std::vector<Bytes> written;
        std::string name;
        std::uint32_t baudRate = 0;

        Script& expects(Bytes bytes) { return add({Step::kWrite, std::move(bytes)}); }
        Script& writeFails(std::int32_t result) { return add({Step::kWrite, {}, result}); }
        Script& answers(Bytes bytes) { return add({Step::kRead, std::move(bytes)}); }
        Script& readGives(std::int32_t result, Bytes bytes = {}, std::uint32_t count = 0) {
            return add({Step::kRead, std::move(bytes), result, count});
        }
        /// One command, acknowledged and answered.
        Script& dialogue(const std::string& command, const std::string& reply) {
            return expects(cmd(command)).answers(ack()).answers(rsp(reply));
        }
        Script& refuses(Bytes bytes) { return expects(std::move(bytes)).answers(ack()).answers(errorFrame()); }

      private:
        Script& add(Step step) {
            steps.push_back(std::move(step));
            return *this;
        }
    };

    explicit ScriptedDevice(std::shared_ptr<Script> script) : mScript(std::move(script)) {}

    std::int32_t OpenInterface(const char* name, std::uint32_t, std::uint32_t) override {
        mScript->name = name;
        return mScript->openResult;
    }
    std::int32_t CloseInterface() override {
        ++mScript->closed;
        return kDeviceOk;
    }
    std::int32_t WriteBytesUnblocked(const std::uint8_t* data, int len, std::uint32_t* count, std::uint32_t) override {
        *count = static_cast<std::uint32_t>(len);
        const Bytes bytes(data, data + len);
        if (bytes == cmd("24") && (mScript->steps.empty() || mScript->steps.front().bytes != bytes)) {
            ++mScript->resynchronised;  // answered beside the script
            mScript->steps.push_front({Step::kRead, rsp("25 00")});
            mScript->steps.push_front({Step::kRead, ack()});
            return kDeviceOk;
        }
        mScript->written.push_back(bytes);
        const Step step = take(Step::kWrite);
        if (step.result == kDeviceOk && !step.bytes.empty()) {
            EXPECT_EQ(mScript->written.back(), step.bytes);
        }
        return step.result;
    }
    std::int32_t ReadBytesUnBlocked(std::uint8_t* buffer, int size, std::uint32_t* count, std::uint32_t) override {
        const Step step = take(Step::kRead);
        EXPECT_GE(static_cast<std::size_t>(size), step.bytes.size());
        std::copy(step.bytes.begin(), step.bytes.end(), buffer);
        *count = step.count != 0 ? step.count : static_cast<std::uint32_t>(step.bytes.size());
        return step.result;
    }
    void discardInput() override { ++mScript->discarded; }
    bool isGone() override { return mScript->gone; }

  private:
    Step take(Step::Kind kind) {
        if (mScript->steps.empty() || mScript->steps.front().kind != kind) {
            ADD_FAILURE() << "the driver " << (kind == Step::kWrite ? "writes" : "reads")
                          << " where the script does not";
            return {kind, {}, kDeviceFailed, 0};
        }
        Step step = std::move(mScript->steps.front());
        mScript->steps.pop_front();
        return step;
    }

    std::shared_ptr<Script> mScript;
};

/// A driver on a scripted device, with its interface open.
class ScriptedDriver : public ::testing::Test {
  protected:
    ScriptedDriver() {
        setTamaDeviceFactory([this](const TamaDeviceRequest& request) {
            script->baudRate = request.baudRate;
            return std::make_unique<ScriptedDevice>(script);
        });
        driver->interfaceOpen(49, 0);
    }
    ~ScriptedDriver() override {
        setTamaDeviceFactory({});
        EXPECT_TRUE(script->steps.empty()) << script->steps.size() << " steps of the script were not reached";
    }

    /// With a dialogue ahead of it.
    NfcTamaBfl& before(const std::string& command, const std::string& reply) {
        script->dialogue(command, reply);
        return *driver;
    }

    std::shared_ptr<ScriptedDevice::Script> script = std::make_shared<ScriptedDevice::Script>();
    std::shared_ptr<NfcTamaBfl> driver = NfcTamaBfl::acquire();
};
