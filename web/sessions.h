// Who is logged in, and how often somebody may guess. Times are those since some start: a device's clock may
// jump.
#pragma once

#include <chrono>
#include <list>
#include <string>

using web_clock = std::chrono::steady_clock;

struct web_session {
    std::string digest;  // of the identifier, which the browser alone has
    std::string token;   // goes with every change
    web_clock::time_point begun, used;
};

class web_sessions {
public:
    // `password_line`: see password.h; it also keys the sign by which a browser is known again.
    explicit web_sessions(std::string password_line);

    // Lets the one in whose identifier has this digest: a browser that was logged in before a restart.
    void let_in(const std::string& digest);

    // The session of that identifier, now used once more; null when there is none or it has ended.
    [[nodiscard]] web_session* find(const std::string& id);
    void end(const web_session* session);

    struct attempt {
        std::string id;     // of the new session; empty: refused
        std::string known;  // by which this browser is known next time
        int wait_secs = 0;  // refused without a look at the password; 0: it was wrong
    };
    // Guesses are counted for each browser that has been let in before, by `known`, and for all others of one
    // `address` together: strangers who guess on do not lock out the owner's browser.
    [[nodiscard]] attempt log_in(const std::string& password, const std::string& known,
                                 const std::string& address);

private:
    struct guesser {
        std::string name;
        int wrong = 0;
        web_clock::time_point until;
    };
    guesser& find_guesser(const std::string& name);
    [[nodiscard]] std::string sign(const std::string& random) const;

    std::string password_line_;
    std::list<web_session> sessions_;
    std::list<guesser> guessers_;  // the one that tried last first
};
