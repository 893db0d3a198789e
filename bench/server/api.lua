-- wrk: one web API call per request, in the session given by the environment
-- (ORVA_COOKIE, ORVA_CSRF), body ORVA_BODY. Counts replies that are not a success.
wrk.method = "POST"
wrk.body = os.getenv("ORVA_BODY")
wrk.headers["Content-Type"] = "application/json"
wrk.headers["Cookie"] = "orva_session=" .. os.getenv("ORVA_COOKIE")
wrk.headers["X-ORVA-CSRF"] = os.getenv("ORVA_CSRF")

local threads = {}
function setup(thread)
  table.insert(threads, thread)
end

failed = 0
function response(status, headers, body)
  if status ~= 200 or not body:find('"success":true', 1, true) then
    failed = failed + 1
    if failed == 1 then io.stderr:write("failed reply: " .. status .. " " .. body:sub(1, 200) .. "\n") end
  end
end

function done(summary, latency, requests)
  local n = 0
  for _, t in ipairs(threads) do n = n + t:get("failed") end
  io.write(string.format("requests %d failed %d\n", summary.requests, n))
end
