#pragma once

#include "HostRdCom.h"
#include "LinkCipher.h"

/// A command whose parameters and reply travel scrambled once there is a key. One key stream serves both: the
/// parameters take its first bytes, the reply those after them.
class CipherCommandObject : public CommandObject {
  public:
    /// Copies 16 bytes and starts the stream; null sets the zero key, with which nothing is scrambled.
    void setKey(const std::uint8_t* key) { mCipher.setKey(key); }
    bool hasKey() const { return mCipher.hasKey(); }
    /// Key and place in the stream, to come back to.
    const LinkCipher& cipher() const { return mCipher; }
    void setCipher(const LinkCipher& cipher) { mCipher = cipher; }
    /// Scrambles the parameters; the command code stays plain.
    void encryptCommand();
    void decryptResponse();

  private:
    LinkCipher mCipher;
};
