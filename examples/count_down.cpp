// Waits for a tag with the application 4711, shows the text in it, and takes 1 from the value in its first block.
#include <qvlmf500/qvl.h>

#include <chrono>
#include <iostream>

int main() try {
    const qvl::Login login{qvl::Key::parse("a1a1a1a1a1a1")};
    const qvl::Reader reader(std::chrono::seconds(30));
    const qvl::Tag tag = reader.waitForTag(qvl::ApplicationQuery{0x4711}, std::chrono::seconds(30));
    const qvl::Application ticket = tag.application(0x4711);
    const qvl::Bytes text = ticket.read(1, 1, login).bytes();
    std::cout << tag.uid().text() << ": " << std::string(text.begin(), std::find(text.begin(), text.end(), 0)) << '\n';
    ticket.decrement(0, 1, login);
    std::cout << ticket.value(0, login) << " rides left\n";
} catch (const qvl::Error& error) {
    std::cerr << name(error.reason()) << ": " << error.what() << '\n';
    return 1;
}
