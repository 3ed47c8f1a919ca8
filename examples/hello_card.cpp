// A card that answers SELECT with "hello", and counts the other commands since its reset.
//
//   g++ -std=c++17 hello_card.cpp $(pkg-config --cflags --libs zelta-agent) -o hello_card
#include <zelta/agent.h>

#include <exception>
#include <iostream>

namespace {

class HelloCard : public zelta::Card {
 public:
  zelta::Bytes atr() override {
    return {0x3B, 0x85, 0x80, 0x01, 'h', 'e', 'l', 'l', 'o', 0x66};  // T=0 and T=1
  }
  void reset() override { count_ = 0; }
  zelta::Bytes transmit(const zelta::Bytes& command) override {
    constexpr std::uint8_t kSelect = 0xA4;
    if (command.size() < 4) return {0x67, 0x00};  // wrong length
    if (command[1] == kSelect) return {'h', 'e', 'l', 'l', 'o', 0x90, 0x00};
    return {++count_, 0x90, 0x00};
  }

 private:
  std::uint8_t count_ = 0;
};

}  // namespace

int main() {
  HelloCard card;
  zelta::ServeOptions options;
  options.log = [](const std::string& line) { std::cerr << line << "\n"; };
  try {
    zelta::serve(card, options);
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 1;
  }
}
