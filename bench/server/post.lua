-- wrk: the trivial web API call (keep-alive is wrk's default).
wrk.method = "POST"
wrk.body = '{"api":"ORVA.Test.Public","version":1,"method":"ping","params":{}}'
wrk.headers["Content-Type"] = "application/json"
