#ifndef EM_TESTS_SIP_SIPJSONTESTUTIL_H
#define EM_TESTS_SIP_SIPJSONTESTUTIL_H

#include <string>

#include <gtest/gtest.h>

#include "sip/SipJson.h"

namespace em_oidmap {

// A message parsed from JSON text; the test fails when the text is rejected.
inline SipJson FromText(const std::string& text) {
  SipJson msg;
  EXPECT_TRUE(msg.Parse(text)) << text;
  return msg;
}

// A message with one command whose "DA" is the given JSON text and "ST" is `st`.
inline SipJson WithData(const std::string& data, unsigned st = 0) {
  return FromText("{\"SIP\":{\"V\":1,\"CMD\":[{\"OC\":1,\"ST\":" + std::to_string(st) +
                  ",\"DA\":" + data + "}]}}");
}

}  // namespace em_oidmap

#endif  // EM_TESTS_SIP_SIPJSONTESTUTIL_H
