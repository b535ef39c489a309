// The throwaway PostgreSQL server the catalogue's tests run against, exercised with libpq.

#include <gtest/gtest.h>
#include <libpq-fe.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <memory>
#include <string>

#include "postgres_server.hpp"
#include "temp_directory.hpp"

namespace qm::test {
namespace {

using Connection = std::unique_ptr<PGconn, decltype(&PQfinish)>;
using Result = std::unique_ptr<PGresult, decltype(&PQclear)>;

Connection connect(const std::string& uri) {
    return Connection(PQconnectdb(uri.c_str()), &PQfinish);
}

// Runs `sql` and returns the result; the test fails unless it has `expected` status.
Result execute(PGconn* connection, const std::string& sql, ExecStatusType expected) {
    Result result(PQexec(connection, sql.c_str()), &PQclear);
    EXPECT_EQ(PQresultStatus(result.get()), expected) << sql << ": " << PQerrorMessage(connection);
    return result;
}

// The single row of `SELECT id, name FROM calls`, as "id|name".
std::string read_calls(const std::string& uri) {
    const Connection connection = connect(uri);
    if (PQstatus(connection.get()) != CONNECTION_OK) {
        return std::string("cannot connect: ") + PQerrorMessage(connection.get());
    }
    const Result result = execute(connection.get(), "SELECT id, name FROM calls", PGRES_TUPLES_OK);
    if (PQntuples(result.get()) != 1) {
        return std::to_string(PQntuples(result.get())) + " rows";
    }
    return std::string(PQgetvalue(result.get(), 0, 0)) + "|" + PQgetvalue(result.get(), 0, 1);
}

class PostgresServerTest : public ::testing::Test {
protected:
    TempDirectory m_directory;
};

TEST_F(PostgresServerTest, StoresRowsAcrossAStopAndAStart) {
    PostgresServer server(m_directory.path());
    ::setenv("PGPASSFILE", server.password_file().c_str(), 1);
    server.create_database("recordings");
    const std::string uri = server.uri("recordings");

    {
        const Connection connection = connect(uri);
        ASSERT_EQ(PQstatus(connection.get()), CONNECTION_OK) << PQerrorMessage(connection.get());
        execute(connection.get(), "CREATE TABLE calls (id bigint PRIMARY KEY, name text NOT NULL)",
                PGRES_COMMAND_OK);
        const Result insert =
            execute(connection.get(), "INSERT INTO calls VALUES (9007199254740993, 'leg ä/1')",
                    PGRES_COMMAND_OK);
        EXPECT_STREQ(PQcmdTuples(insert.get()), "1");
    }
    EXPECT_EQ(read_calls(uri), "9007199254740993|leg ä/1");

    server.stop();
    const Connection refused = connect(uri);
    EXPECT_EQ(PQstatus(refused.get()), CONNECTION_BAD);

    server.start();
    EXPECT_EQ(read_calls(uri), "9007199254740993|leg ä/1");
}

TEST_F(PostgresServerTest, ListensOnlyOnASocketInTheTestsDirectory) {
    PostgresServer server(m_directory.path());

    EXPECT_EQ(server.socket_directory(), m_directory.path() / "postgres");
    EXPECT_EQ(server.port(), 5432);
    const std::string encoded = server.uri("x");
    std::string expected = "postgresql://qm@";
    for (const char c : m_directory.path().string() + "/postgres") {
        expected += c == '/' ? std::string("%2F") : std::string(1, c);
    }
    EXPECT_EQ(encoded, expected + ":5432/x");
    struct stat socket {};
    ASSERT_EQ(::stat((server.socket_directory() / ".s.PGSQL.5432").c_str(), &socket), 0);
    EXPECT_TRUE(S_ISSOCK(socket.st_mode));
    ::setenv("PGPASSFILE", server.password_file().c_str(), 1);
    const Connection connection = connect(server.uri("postgres"));
    ASSERT_EQ(PQstatus(connection.get()), CONNECTION_OK) << PQerrorMessage(connection.get());
    const Result listen = execute(connection.get(), "SHOW listen_addresses", PGRES_TUPLES_OK);
    ASSERT_EQ(PQntuples(listen.get()), 1);
    EXPECT_STREQ(PQgetvalue(listen.get(), 0, 0), "") << "no TCP";
}

TEST_F(PostgresServerTest, WantsThePasswordFromThePasswordFile) {
    PostgresServer server(m_directory.path());
    struct stat password_file {};
    ASSERT_EQ(::stat(server.password_file().c_str(), &password_file), 0);
    EXPECT_EQ(password_file.st_mode & 0777, 0600u);

    ::setenv("PGPASSFILE", (m_directory.path() / "missing").c_str(), 1);
    const Connection without = connect(server.uri("postgres"));
    EXPECT_EQ(PQstatus(without.get()), CONNECTION_BAD);
    EXPECT_NE(std::string(PQerrorMessage(without.get())).find("no password supplied"),
              std::string::npos)
        << PQerrorMessage(without.get());

    ::setenv("PGPASSFILE", server.password_file().c_str(), 1);
    const Connection with = connect(server.uri("postgres"));
    EXPECT_EQ(PQstatus(with.get()), CONNECTION_OK) << PQerrorMessage(with.get());
}

TEST_F(PostgresServerTest, DestructorStopsTheServer) {
    const std::filesystem::path data = m_directory.path() / "postgres" / "data";
    std::filesystem::path socket;
    {
        PostgresServer server(m_directory.path());
        socket = server.socket_directory() / ".s.PGSQL.5432";
        ASSERT_TRUE(std::filesystem::exists(socket));
        ASSERT_TRUE(std::filesystem::exists(data / "postmaster.pid"));
    }
    // The server removes both as it shuts down; pg_ctl waits for the pid file to go.
    EXPECT_FALSE(std::filesystem::exists(socket));
    EXPECT_FALSE(std::filesystem::exists(data / "postmaster.pid"));
}

TEST_F(PostgresServerTest, PutsATooLongSocketPathUnderTmp) {
    const std::filesystem::path deep = m_directory.path() / std::string(100, 'd');
    std::filesystem::create_directory(deep);
    std::filesystem::permissions(m_directory.path(), std::filesystem::perms::others_exec,
                                 std::filesystem::perm_options::add);
    std::filesystem::path socket_directory;
    {
        PostgresServer server(deep);
        socket_directory = server.socket_directory();
        EXPECT_EQ(socket_directory.parent_path(), "/tmp");
        ::setenv("PGPASSFILE", server.password_file().c_str(), 1);
        const Connection connection = connect(server.uri("postgres"));
        EXPECT_EQ(PQstatus(connection.get()), CONNECTION_OK) << PQerrorMessage(connection.get());
    }
    EXPECT_FALSE(std::filesystem::exists(socket_directory));
}

}  // namespace
}  // namespace qm::test
