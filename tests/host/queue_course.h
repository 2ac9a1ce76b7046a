// Courses: operations on queues with the outcome of each, as text. A line of courses/*/NAME.course is a verb
// with its words and, after "->", what came of it; the text is compared whole. courses/README.md lists the
// verbs. With VELD_RECORD set the files are written anew, for a look at the difference.
//
// A test program derives from QueueCourses and runs courses/contract, which every queue service must take.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "tests/common/files.h"
#include "tests/host/queue_items.h"

namespace veld_report::tests {

class QueueCourses : protected virtual QueueOperations {
 protected:
  static constexpr char binary[] = "binary";

  // Both are called without producers and readers. The first starts a service on nothing, the second ends it
  // and starts it on what it has kept.
  virtual void Begin() = 0;
  virtual void Restart() = 0;
  // Returns the outcome; empty if there is none to show.
  virtual std::string Do(const std::string& verb, const Strings& words) {
    const std::string name = words.empty() ? "" : words[0];
    const std::string second = words.size() < 2 ? "" : words[1];
    if (verb == "push" || verb == "evict") {
      const auto producer = producers_.contains(name) ? producers_[name] : Producer(name);
      return Each(words, [&](const std::string& text) {
        return verb == "push" ? PushText(*producer, Whole(text)) : EvictAndPush(*producer, name, text);
      });
    }
    if (verb == "ack" || verb == "return") {
      const auto settle = verb == "ack" ? &orvel::IAckConsumer::Ack : &orvel::IAckConsumer::ReturnItem;
      return Each(words,
                  [&](const std::string& text) { return (*readers_.at(name).*settle)(&tokens_[text]); });
    }
    if (verb == "read") {
      Strings texts;
      for (const ReadItem& item : ReadAll(*readers_.at(name), std::stoul(second))) {
        texts.push_back(item.bytes);
        tokens_[item.bytes] = item.token;
        EXPECT_EQ(texts_.try_emplace(item.token, item.bytes).first->second, item.bytes)
            << "a token came again";
      }
      return Shown(texts);
    }
    if (verb == "waiting") return Shown(Waiting(name));
    if (verb == "names") return Shown(Names());
    if (verb == "producer") {
      producers_[name] = Producer(name, static_cast<std::uint32_t>(std::stoul(second)));
    } else if (verb == "reader") {
      readers_[name] = Reader(second);
    } else if (verb == "end") {
      EXPECT_EQ(producers_.erase(name) + readers_.erase(name), 1u);
    } else if (verb == "remove") {
      EXPECT_EQ(Manager()->RemoveQueue(zel::string(name)), zel::sOk);
    } else if (verb == "domain") {
      domain = name;
    } else if (verb == "restart") {
      End();
      Restart();
    } else if (verb == "threads") {
      RunThreads(name);
    } else {
      throw std::invalid_argument(verb);
    }
    return "";
  }
  void RunAll(const std::filesystem::path& folder) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      SCOPED_TRACE(entry.path());
      const std::string written = ReadFile(entry.path());
      std::string course;
      Begin();
      for (const std::string& line : Lines(written)) {
        const std::string call = line.substr(0, line.find(" -> "));
        std::istringstream stream(call);
        std::string verb;
        stream >> verb;
        const Strings words{std::istream_iterator<std::string>(stream), {}};
        const std::string outcome = verb.empty() || verb == "#" ? "" : Do(verb, words);
        course += call + (outcome.empty() ? "" : " -> " + outcome) + "\n";
      }
      EXPECT_EQ(written, course);
      if (std::getenv("VELD_RECORD")) WriteFile(entry.path(), course);
      End();
      tokens_.clear();
      texts_.clear();
      domain = usualDomain;
      ++count;
    }
    EXPECT_GT(count, 0);
  }
  static std::string Whole(const std::string& text) {
    if (text == binary) return {"\0\xff\n\0", 4};
    const std::size_t star = text.find('*');
    return star == text.npos ? text : std::string(std::stoul(text.substr(star + 1)), text[0]);
  }
  static std::string Shown(const Strings& texts) {
    std::string all;
    for (const std::string& text : texts) {
      const bool repeats = text.size() > 4 && text.find_first_not_of(text[0]) == text.npos;
      all += " " + (repeats                 ? text.substr(0, 1) + "*" + std::to_string(text.size())
                    : text == Whole(binary) ? binary
                                            : text);
    }
    return all.empty() ? "nothing" : all.substr(1);
  }

 private:
  // The outcome for each text behind the queue or reader; one if all are the same.
  template <class Operation>
  static std::string Each(const Strings& words, Operation&& operation) {
    Strings outcomes;
    for (auto text = words.begin() + 1; text != words.end(); ++text) {
      const zel::ResultCode code = operation(*text);
      outcomes.push_back(code == zel::sOk ? "ok" : code == zel::eOutOfSpace ? "full" : "refused");
    }
    if (std::ranges::count(outcomes, outcomes.at(0)) == std::ssize(outcomes)) outcomes.resize(1);
    return Shown(outcomes);
  }
  Strings Names() {
    zel::vector_t<zel::string> names;
    EXPECT_EQ(Manager()->EnumerateQueues(&names), zel::sOk);
    Strings result;
    for (const zel::string& name : names) result.emplace_back(name.View());
    std::ranges::sort(result);
    return result;
  }
  // Each of them pushes, reads, and acknowledges what another one has read. One item remains.
  void RunThreads(const std::string& queue) {
    constexpr std::size_t threads = 4, each = 500;
    std::mutex mutex;  // guards the following
    std::multiset<std::string> found;
    std::pair<zel::Ref<orvel::IAckConsumer>, std::uint64_t> left;  // what the next thread acknowledges
    std::vector<std::jthread> running;
    for (std::size_t thread = 0; thread < threads; ++thread) {
      running.emplace_back([&, thread] {
        const auto producer = Producer(queue);
        for (std::size_t i = 0; i < each; ++i)
          EXPECT_EQ(PushText(*producer, Numbered(thread * each + i)), zel::sOk);
        const auto reader = Reader(queue);
        while (const auto item = ReadOne(*reader)) {
          std::pair claim{reader, item->token};
          {
            const std::lock_guard lock(mutex);
            found.insert(item->bytes);
            std::swap(claim, left);
          }
          EXPECT_TRUE(!claim.first || claim.first->Ack(&claim.second) == zel::sOk);
        }
      });
    }
    running.clear();
    EXPECT_EQ(left.first->ReturnItem(&left.second), zel::sOk);
    for (std::size_t i = 0; i < threads * each; ++i) EXPECT_EQ(found.count(Numbered(i)), 1u) << i;
    EXPECT_EQ(Waiting(queue).size(), 1u);
  }
  void End() {
    producers_.clear();
    readers_.clear();
  }

  std::map<std::string, zel::Ref<orvel::IQueueProducer>> producers_;
  std::map<std::string, zel::Ref<orvel::IAckConsumer>> readers_;
  std::map<std::string, std::uint64_t> tokens_;
  std::map<std::uint64_t, std::string> texts_;
};

}  // namespace veld_report::tests
