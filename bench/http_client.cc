// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

// http_client URL SIZE CONCURRENCY COUNT ROUNDS
//
// What a request over HTTP costs when no bus is asked for it: sends COUNT
// requests to URL, CONCURRENCY of them at a time, after ROUNDS of one each,
// with the tuning of the daemon's transport, and prints how long they took and
// what processor time this program used for each. Each must be answered with
// status 200 and a body of SIZE bytes. It knows beforehand what it will ask
// for, so it sets its handles up once, which nobody can who asks for others.

#include <curl/curl.h>
#include <string.h>
#include <systemd/sd-event.h>

#include <memory>
#include <string>
#include <vector>

#include "bench/closed_loop.h"

namespace {

using bench::Fail;

void Require(int result, const char* what) {
  if (result < 0) Fail(what, strerror(-result));
}

struct Work {
  const char* url;
  size_t size;
  bench::ClosedLoop loop;
  sd_event* event = nullptr;
  sd_event_source* timer = nullptr;
  CURLM* multi = nullptr;
};

size_t OnBody(char* data, size_t, size_t size, void* body) {
  static_cast<std::string*>(body)->append(data, size);
  return size;
}

// Sends one request after the other.
class Client {
 public:
  Client(Work* work, curl_slist* header)
      : work_(work),
        easy_(curl_easy_init()),
        number_(work->loop.Add([this] { Send(); })) {
    curl_easy_setopt(easy_, CURLOPT_PRIVATE, this);
    curl_easy_setopt(easy_, CURLOPT_URL, work_->url);
    curl_easy_setopt(easy_, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_2TLS);
    curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, header);
    curl_easy_setopt(easy_, CURLOPT_SSLVERSION, CURL_SSLVERSION_TLSv1_2);
    // Or the certificates would be read again for each connection.
    curl_easy_setopt(easy_, CURLOPT_CAPATH, nullptr);
    curl_easy_setopt(easy_, CURLOPT_PROXY, "");
    curl_easy_setopt(easy_, CURLOPT_UPLOAD_BUFFERSIZE, 16384L);
    curl_easy_setopt(easy_, CURLOPT_WRITEFUNCTION, OnBody);
    curl_easy_setopt(easy_, CURLOPT_WRITEDATA, &body_);
    curl_easy_setopt(easy_, CURLOPT_TIMEOUT_MS, 60000L);
    curl_easy_setopt(easy_, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy_, CURLOPT_QUICK_EXIT, 1L);
  }

  void OnDone(CURLcode result) {
    curl_multi_remove_handle(work_->multi, easy_);
    if (result != CURLE_OK) Fail(work_->url, curl_easy_strerror(result));
    long status = 0;
    curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
    if (status != 200) Fail("the status is not 200", body_.c_str());
    if (body_.size() != work_->size) Fail("wrong length", body_.c_str());
    if (!work_->loop.Answered(number_, sent_)) sd_event_exit(work_->event, 0);
  }

 private:
  void Send() {
    body_.clear();
    sent_ = bench::Now();
    curl_multi_add_handle(work_->multi, easy_);
  }

  Work* work_;
  CURL* easy_;
  size_t number_;
  std::string body_;
  double sent_ = 0;
};

void Advance(Work* work, int fd, int events) {
  int running = 0;
  curl_multi_socket_action(work->multi, fd, events, &running);
  int remaining = 0;
  while (const CURLMsg* message =
             curl_multi_info_read(work->multi, &remaining)) {
    Client* client = nullptr;
    curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &client);
    client->OnDone(message->data.result);
  }
}

int OnSocketReady(sd_event_source*, int fd, uint32_t revents, void* work) {
  int events = 0;
  if (revents & (EPOLLIN | EPOLLERR | EPOLLHUP)) events |= CURL_CSELECT_IN;
  if (revents & (EPOLLOUT | EPOLLERR | EPOLLHUP)) events |= CURL_CSELECT_OUT;
  Advance(static_cast<Work*>(work), fd, events);
  return 0;
}

int OnDue(sd_event_source*, uint64_t, void* work) {
  Advance(static_cast<Work*>(work), CURL_SOCKET_TIMEOUT, 0);
  return 0;
}

int OnSocketInterest(CURL*, int fd, int what, void* stored, void* socket) {
  auto* work = static_cast<Work*>(stored);
  auto* source = static_cast<sd_event_source*>(socket);
  if (what == CURL_POLL_REMOVE) {
    sd_event_source_disable_unref(source);
    return 0;
  }
  uint32_t events = 0;
  if (what & CURL_POLL_IN) events |= EPOLLIN;
  if (what & CURL_POLL_OUT) events |= EPOLLOUT;
  if (source) return sd_event_source_set_io_events(source, events);
  Require(
      sd_event_add_io(work->event, &source, fd, events, OnSocketReady, work),
      "socket");
  curl_multi_assign(work->multi, fd, source);
  return 0;
}

int OnTimerInterest(CURLM*, long timeout_ms, void* stored) {
  auto* work = static_cast<Work*>(stored);
  if (timeout_ms < 0) {
    return sd_event_source_set_enabled(work->timer, SD_EVENT_OFF);
  }
  sd_event_source_set_time_relative(work->timer,
                                    static_cast<uint64_t>(timeout_ms) * 1000);
  return sd_event_source_set_enabled(work->timer, SD_EVENT_ONESHOT);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) Fail("usage", "http_client URL SIZE CONCURRENCY COUNT ROUNDS");
  bench::ClaimDescriptors();
  curl_global_init(CURL_GLOBAL_DEFAULT);
  Work work{argv[1], bench::ParseNumber(argv[2]),
            bench::ClosedLoop(
                bench::ParseNumber(argv[4]), bench::ParseNumber(argv[5]),
                [] { return bench::ReadClock(CLOCK_PROCESS_CPUTIME_ID); })};
  Require(sd_event_new(&work.event), "event loop");
  Require(sd_event_add_time_relative(work.event, &work.timer, CLOCK_MONOTONIC,
                                     0, 1, OnDue, &work),
          "timer");
  work.multi = curl_multi_init();
  curl_multi_setopt(work.multi, CURLMOPT_SOCKETFUNCTION, OnSocketInterest);
  curl_multi_setopt(work.multi, CURLMOPT_SOCKETDATA, &work);
  curl_multi_setopt(work.multi, CURLMOPT_TIMERFUNCTION, OnTimerInterest);
  curl_multi_setopt(work.multi, CURLMOPT_TIMERDATA, &work);
  curl_multi_setopt(work.multi, CURLMOPT_PIPELINING, CURLPIPE_NOTHING);
  // Or connections would be closed whenever few requests are on their way.
  const size_t concurrency = bench::ParseNumber(argv[3]);
  curl_multi_setopt(work.multi, CURLMOPT_MAXCONNECTS,
                    static_cast<long>(concurrency));

  curl_slist* header = nullptr;
  for (const char* line :
       {"Authorization: Bearer bench-access-token",
        "Content-Type: application/json", "Accept:", "Expect:"}) {
    header = curl_slist_append(header, line);
  }
  std::vector<std::unique_ptr<Client>> clients;
  for (size_t n = 0; n < concurrency; ++n) {
    clients.push_back(std::make_unique<Client>(&work, header));
  }
  work.loop.Start();
  Require(sd_event_loop(work.event), "loop");
  work.loop.Print();
  return 0;
}
