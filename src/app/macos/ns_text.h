#pragma once

#import <Foundation/Foundation.h>

#include <string>
#include <string_view>

namespace qev::app {

// Text crossing between the portable core (UTF-8) and Foundation; bytes that are not UTF-8
// become an empty string rather than nil.
inline NSString* nsText(std::string_view text) {
  NSString* string = [[NSString alloc] initWithBytes:text.data()
                                              length:text.size()
                                            encoding:NSUTF8StringEncoding];
  return string ?: @"";
}

inline std::string utf8Text(NSString* string) {
  const char* text = string.UTF8String;
  return text ? std::string(text) : std::string();
}

}  // namespace qev::app
