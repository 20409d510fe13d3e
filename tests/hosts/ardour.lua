-- A session of Ardour with a VST3 plug-in on a bus, under JACK.
--
--   ardour7-lua ardour.lua SESSION UID STOP
--
-- It runs until the file STOP is there. The first busses of the plug-in come out of the bus first.
local folder, uid, stop = arg[1], arg[2], arg[3]
os.remove(stop)
AudioEngine:set_backend("JACK", "ardour", "")
assert(AudioEngine:start(false) == 0, "no server")
local session = assert(create_session(folder, "session", 48000), "no session")
local busses = session:new_audio_route(2, 2, nil, 1, "bus", ARDOUR.PresentationInfo.Flag.AudioBus,
                                       ARDOUR.PresentationInfo.max_order)
local bus
for route in busses:iter() do bus = route end
local plugin = ARDOUR.LuaAPI.new_plugin(session, uid, ARDOUR.PluginType.VST3, "")
assert(not plugin:isnil(), "no plug-in")
bus:add_processor_by_index(plugin, 0, nil, true)
local description = plugin:to_insert():plugin(0)
for parameter = 0, description:parameter_count() - 1 do
    if description:parameter_label(parameter) == "Percussive level" then
        ARDOUR.LuaAPI.set_processor_param(plugin, parameter, -12)
    end
end
if not bus:panner_shell():isnil() then bus:panner_shell():set_bypassed(true) end
print("outputs", plugin:to_insert():output_streams():n_audio(), bus:n_outputs():n_audio())
print("latency", plugin:to_insert():signal_latency())
while not io.open(stop) do os.execute("sleep 0.2") end
close_session()
quit()
