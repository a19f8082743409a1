// FastCGIServer: how an application's web page reaches it. The web server forwards the page's
// requests to a Unix socket that this class owns,
// "/usr/local/packages/<app>/html/<app>_fcgi.socket" (mode 0777, backlog 5). One background thread
// accepts them one at a time, takes the query's "action" items apart (uriparser decodes keys and
// values) and hands each to the derived class: processGetRequest for a GET, processPostRequest with
// the whole body for a POST. The handler's text is the answer, always with "Status: 200 OK" and
// "Content-Type: text/plain"; applications carry success or failure inside the text. Each query
// item writes a whole header block and its response, so an answer is well formed only for a query
// of exactly one item; an item that is not "action" answers with an empty block, and a query
// without items ("?" alone) gets no output.
//
// A web request never takes the application down: a missing REQUEST_URI answers like an
// unparsable URI ("Failed to parse URI"), a missing REQUEST_METHOD like an unsupported method, a
// handler's exception is logged ("run: Handler failed: ...") and answered with an empty block,
// and a POST whose CONTENT_LENGTH is missing, not a number or above 16 MiB is answered with
// "Failed to read request body" without reading the body. A body shorter than its announced
// length reads as 0xFF bytes at its end, and so does the rest of a body whose sender falls silent
// for 10 seconds; an answer that the peer stops reading for 10 seconds is dropped.
//
// The server accepts the connections itself and hands libfcgi only records that it has checked,
// through a socket pair: libfcgi would end the process on parameter lengths that overflow its
// allocation, and keep memory for every management record of a type it does not know. Management
// records (request id 0) are answered here: FCGI_GET_VALUES with one connection, one request and
// no multiplexing, any other type with FCGI_UNKNOWN_TYPE. A request's head (its begin record and
// parameters) must arrive whole within 10 seconds, with a libfcgi role, at most 64 KiB of
// parameters and every name and value inside them; anything else is refused with the error line
// "run: Refused FastCGI request: <reason>" and the connection closed without an answer. The body
// goes to libfcgi 32 KiB at a time as it arrives. A kept connection (FCGI_KEEP_CONN) serves one
// request after the other.
//
// Ownership and lifecycle: the constructor opens the socket (and throws std::runtime_error if it
// cannot); start() starts the thread, which this class never joins, detaches or cancels, and
// which normally ends with the process. The loop ends only when accepting fails. The destructor
// frees the request object only: destroy a server only after its thread has ended. To stop one
// (tests do, to run several servers in one process), a derived class shuts the listening socket
// down with ::shutdown(_socket, SHUT_RDWR): the waiting accept fails, run() logs
// "run: Exiting FastCGI server run loop" and returns (after the connection in hand, which a
// kept one ends within 10 silent seconds), and pthread_join(_thread, nullptr) then collects the
// thread; ::close(_socket) afterwards releases the descriptor.
//
// Threading: handlers run on the server's thread, not the application's, one request at a time;
// whatever they share with the analysis loop (a Config, a manager) the application guards. A
// slow handler holds up every other request; further connections wait in the backlog.
#pragma once

#include <fcgiapp.h>
#include <pthread.h>

#include <cstdint>
#include <map>
#include <string>

namespace Ombrel {

using KeyValueMap = std::map<std::string, std::string>;

class FastCGIServer {
public:
    // Opens the socket of appName and prepares the request object. Throws std::runtime_error
    // with "FCGX_Init failed", "FCGX_OpenSocket failed" or "FCGX_InitRequest failed".
    explicit FastCGIServer(const std::string& appName);
    // Frees the request object (and its connection, if one is open). The listening socket and
    // the thread are left as they are.
    virtual ~FastCGIServer();

    FastCGIServer(const FastCGIServer&) = delete;
    FastCGIServer& operator=(const FastCGIServer&) = delete;

    // Starts the request loop on a new thread. Always returns 0; a thread that cannot be created
    // is reported as an error line.
    int start();

protected:
    // The derived class's answer to a GET with this action.
    virtual std::string processGetRequest(const std::string& action) = 0;
    // The derived class's answer to a POST with this action; body is the whole request body.
    virtual std::string processPostRequest(const std::string& action, const std::string& body) = 0;

    // Reads the body of the current request: CONTENT_LENGTH bytes, with 0xFF for each byte the
    // client did not send. A length that is missing, not a number or above 16 MiB is refused
    // with the error line "run: Refused request body of length <value>" and gives an empty text.
    std::string getPostBody();

    // The thread's entry: calls run() on the FastCGIServer passed as arg.
    static void* threadFunction(void* arg);
    // The request loop; returns 0 once accepting fails.
    int run();

    // Splits a text of the form "k1=v1&k2=v2" at each "&" and each part at its first "=". Parts
    // without "=" are skipped, later "=" stay in the value, the last of equal keys wins, and
    // nothing is percent-decoded.
    KeyValueMap parseQueryString(const std::string& queryString);

    FCGX_Request _request;
    int32_t _socket = 0;
    pthread_t _thread{};

private:
    // Serves the requests of one accepted connection and closes it.
    void serveConnection(int connection);
    // Reads the next request's head (its begin record and parameters) from the connection and
    // passes it on to libfcgi's end of the relay; false (with the error line, unless the web
    // server just closed a kept connection) when there is none or it is refused.
    bool relayRequestHead();
    // Passes at least one and at most wanted further body bytes (or the body's end) on.
    void relayBody(std::size_t wanted);
    // Serves the request that FCGX_Accept_r has just accepted.
    void serveRequest();
    // The body as getPostBody reads it; false (and the error line) if the length is refused.
    bool readPostBody(std::string& body);

    // The connection being served, and the socket pair through which libfcgi reads its records.
    struct Exchange {
        int connection = -1;
        int relayIn = -1;  // written by this class
        int relayOut = -1; // read by libfcgi
        unsigned int requestId = 0;
        std::size_t recordLeft = 0;  // content of the connection's current body record not read
        std::size_t paddingLeft = 0; // and its padding
        std::size_t unreadBody = 0;  // body bytes on the relay that libfcgi has not read yet
        bool bodyEnded = false;      // the body's end is on the relay
    };
    Exchange _exchange;
};

} // namespace Ombrel
