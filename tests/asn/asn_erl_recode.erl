%% Decodes each hex line of a file as a PDU with an independently compiled aligned-PER codec and
%% prints the value encoded again, or the reason it failed.
-module(asn_erl_recode).
-export([main/1]).

main([Mod, Type, File]) ->
    M = list_to_atom(Mod),
    T = list_to_atom(Type),
    {ok, Data} = file:read_file(File),
    Lines = [L || L <- binary:split(Data, <<"\n">>, [global]), L =/= <<>>],
    lists:foreach(fun(L) -> io:format("~s~n", [recode(M, T, L)]) end, Lines),
    halt(0).

recode(M, T, Hex) ->
    Bin = binary:decode_hex(Hex),
    try M:decode(T, Bin) of
        {ok, Val} ->
            case M:encode(T, Val) of
                {ok, Out} -> "OK " ++ string:lowercase(binary_to_list(binary:encode_hex(iolist_to_binary(Out))));
                E -> io_lib:format("ERR encode ~0p", [E])
            end;
        E -> io_lib:format("ERR decode ~0p", [E])
    catch C:R -> io_lib:format("ERR ~0p:~0p", [C, R])
    end.
